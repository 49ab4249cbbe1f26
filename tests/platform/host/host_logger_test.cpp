// Defends the logger's back end on Linux: one record is one line, and no reader of standard error stops a writer.
#include "bos/logger.h"
#include "process.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>

#include <cctype>
#include <csignal>
#include <regex>

namespace platform_test {
namespace {

using bos::logger::BOSLogger;
using bos::logger::LogFormat;
using bos::logger::LogLevel;

// Before the log's first record: these tests count lines of one site. The limit has tests of its own.
const bool Unlimited = ::setenv("BORVEN_LOG_LIMIT", "off", 1) == 0;

/// Replaces standard error for the length of a test.
class StandardError : public ::testing::Test {
protected:
    void SetUp() override {
        saved = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
        ::unsetenv("NO_COLOR");
        // This line takes along the report of what earlier tests dropped.
        RedirectToPipe();
        Log("ready");
    }
    void TearDown() override {
        ::dup2(saved, STDERR_FILENO);
        ::close(saved);
        for (const int fd : opened) {
            ::close(fd);
        }
    }

    void Redirect(int fd) { ASSERT_EQ(STDERR_FILENO, ::dup2(fd, STDERR_FILENO)); }

    /// Returns: the reading end of a pipe that is now standard error.
    int RedirectToPipe() {
        int ends[2];
        EXPECT_EQ(0, ::pipe2(ends, O_CLOEXEC));
        Redirect(ends[1]);
        ::close(ends[1]);
        return Keep(ends[0]);
    }

    int Keep(int fd) {
        opened.push_back(fd);
        return fd;
    }

    void RestoreNow() { ::dup2(saved, STDERR_FILENO); }

    static void Log(const std::string& text, LogLevel level = LogLevel::Error) {
        std::string message = text;
        BOSLogger::RootLogger().LogImpl(level, "file.cpp", 12, "Function", message);
    }

    /// Returns: what can be read without waiting.
    static std::string ReadAvailable(int fd) {
        std::string text;
        pollfd waited{fd, POLLIN, 0};
        while (::poll(&waited, 1, 0) == 1 && (waited.revents & POLLIN) != 0) {
            std::array<char, 4096> buffer{};
            const ssize_t length = ::read(fd, buffer.data(), buffer.size());
            if (length <= 0) {
                break;
            }
            text.append(buffer.data(), static_cast<std::size_t>(length));
        }
        return text;
    }

    static std::string ReadToTheEnd(int fd) {
        std::string text;
        std::array<char, 4096> buffer{};
        ssize_t length = 0;
        while ((length = ::read(fd, buffer.data(), buffer.size())) > 0) {
            text.append(buffer.data(), static_cast<std::size_t>(length));
        }
        return text;
    }

    static std::vector<std::string> LinesOf(const std::string& text) {
        std::vector<std::string> lines;
        std::istringstream stream(text);
        for (std::string line; std::getline(stream, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    int saved = -1;
    std::vector<int> opened;
};

TEST_F(StandardError, GetsOneLinePerRecord) {
    const int reader = RedirectToPipe();
    Log("text", LogLevel::Debug);
    Log("text", LogLevel::Info);
    Log("text", LogLevel::Warning);
    Log("text", LogLevel::Error);
    const auto lines = LinesOf(ReadAvailable(reader));
    const std::array<std::string, 4> levels{"DEBUG", "INFO ", "WARN ", "ERROR"};
    ASSERT_EQ(levels.size(), lines.size());
    for (std::size_t i = 0; i < levels.size(); ++i) {
        const std::regex wanted("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{6}Z " + levels[i] + " \\[" +
                                std::to_string(::gettid()) + "\\] file\\.cpp:12 Function: text");
        EXPECT_TRUE(std::regex_match(lines[i], wanted)) << lines[i];
    }
}

TEST_F(StandardError, NeverSeesControlCharacters) {
    const int reader = RedirectToPipe();
    using namespace std::literals;
    Log(std::string("a\nb\tc\rd\0e\x1b[31mf\x7fg\xc2\x9bh\x9b"
                    "i\xc3\xa9j\xf0\x9f\x98\x80k\\"sv));
    EXPECT_THAT(ReadAvailable(reader),
                ::testing::EndsWith(
                    ": a\\nb\\tc\\x0dd\\x00e\\x1b[31mf\\x7fg\\xc2\\x9bh\\x9bi\xc3\xa9j\xf0\x9f\x98\x80k\\\\\n"));
}

TEST_F(StandardError, GetsWholeLinesFromManyThreads) {
    constexpr int threads = 4;
    constexpr int each = 200;
    const int reader = RedirectToPipe();
    Background reading([&] { return ReadToTheEnd(reader); });
    {
        std::vector<std::unique_ptr<Background<void>>> writers;
        for (int i = 0; i < threads; ++i) {
            writers.push_back(std::make_unique<Background<void>>([i] {
                for (int count = 0; count < each; ++count) {
                    // Every other one is longer than PIPE_BUF, which a pipe accepts whole.
                    Log(std::string(count % 2 == 0 ? 100 : 6000, static_cast<char>('a' + i)));
                }
            }));
        }
    }
    // Completes a line of which the pipe accepted a part, and reports the dropped ones.
    std::string text;
    Log("end");
    RestoreNow();
    Log("restored"); // the logger lets go of the pipe
    text = reading.Get();

    const std::regex line("\\S+ ERROR \\[\\d+\\] file\\.cpp:12 Function: (a+|b+|c+|d+|end)");
    const std::regex report("\\S+ WARN  log: (\\d+) records were dropped: standard error did not accept them");
    int written = 0;
    int dropped = 0;
    auto lines = LinesOf(text);
    ASSERT_FALSE(lines.empty());
    if (text.back() != '\n') {
        lines.pop_back(); // cut off when the stream changed
        ++dropped;
    }
    for (const auto& found : lines) {
        std::smatch match;
        if (std::regex_match(found, match, report)) {
            dropped += std::stoi(match[1]);
        } else {
            EXPECT_TRUE(std::regex_match(found, line)) << found.substr(0, 200);
            ++written;
        }
    }
    EXPECT_GT(written, 0);
    EXPECT_LE(written + dropped, threads * each + 1);
}

TEST_F(StandardError, ThatNobodyReads_StopsNobody_AndTellsLaterWhatWasLost) {
    constexpr int records = 3000;
    const int reader = RedirectToPipe();
    for (int i = 0; i < records; ++i) {
        Log("text");
    }
    std::string text = ReadAvailable(reader);
    Log("text");
    text += ReadAvailable(reader);
    const auto lines = LinesOf(text);
    const auto report = std::find_if(lines.begin(), lines.end(),
                                     [](const auto& line) { return line.find("were dropped") != std::string::npos; });
    ASSERT_NE(lines.end(), report);
    const auto number = report->find("log: ") + 5;
    const int dropped = std::stoi(report->substr(number));
    EXPECT_GT(dropped, 0);
    EXPECT_EQ(records + 1, static_cast<int>(lines.size()) - 1 + dropped) << "each is either there or counted";
}

TEST_F(StandardError, WhoseReaderWentAway_StopsNobody) {
    ::signal(SIGPIPE, SIG_DFL);
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_CLOEXEC));
    Redirect(ends[1]);
    ::close(ends[1]);
    ::close(ends[0]);
    for (int i = 0; i < 10; ++i) {
        Log("text");
    }
    sigset_t pending;
    ::sigpending(&pending);
    EXPECT_EQ(0, ::sigismember(&pending, SIGPIPE));
}

TEST_F(StandardError, ThatIsClosed_StopsNobody) {
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_CLOEXEC));
    ::close(STDERR_FILENO);
    Log("text");
    Redirect(Keep(ends[1]));
    Log("again");
    EXPECT_THAT(ReadAvailable(Keep(ends[0])), ::testing::EndsWith(": again\n"));
}

TEST_F(StandardError, KeepsItsBlockingMode_WhichOthersShare) {
    RedirectToPipe();
    const int before = ::fcntl(STDERR_FILENO, F_GETFL);
    Log("text");
    EXPECT_EQ(before, ::fcntl(STDERR_FILENO, F_GETFL));
    EXPECT_EQ(0, before & O_NONBLOCK);
}

TEST_F(StandardError, ThatIsASocket_Works_AndStopsNobody) {
    int ends[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    Redirect(ends[1]);
    ::close(ends[1]);
    Keep(ends[0]);
    Log("first");
    EXPECT_THAT(ReadAvailable(ends[0]), ::testing::EndsWith(": first\n"));
    for (int i = 0; i < 5000; ++i) {
        Log("text");
    }
    ReadAvailable(ends[0]);
    Log("last");
    EXPECT_THAT(ReadAvailable(ends[0]), ::testing::EndsWith(": last\n"));
}

TEST_F(StandardError, ThatIsAFile_IsContinued_NotOverwritten) {
    std::string path = (std::filesystem::temp_directory_path() / "borven-log-XXXXXX").string();
    const int file = Keep(::mkstemp(path.data()));
    ASSERT_GE(file, 0);
    Redirect(file);
    ASSERT_EQ(7, ::write(STDERR_FILENO, "before\n", 7));
    Log("text");
    ASSERT_EQ(6, ::write(STDERR_FILENO, "after\n", 6));
    std::ifstream stream(path);
    const std::string text(std::istreambuf_iterator<char>(stream), {});
    EXPECT_TRUE(std::regex_match(text, std::regex("before\n.*: text\nafter\n"))) << text;
    std::filesystem::remove(path);
}

TEST_F(StandardError, ThatIsATerminal_IsColoured) {
    ::setenv("TERM", "xterm", 1);
    const int master = Keep(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_GE(master, 0);
    ASSERT_EQ(0, ::grantpt(master));
    ASSERT_EQ(0, ::unlockpt(master));
    const int terminal = Keep(::open(::ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_GE(terminal, 0);
    Redirect(terminal);
    Log("text");
    const std::string coloured = ReadAvailable(master);
    EXPECT_THAT(coloured, ::testing::StartsWith("\x1b[31m"));
    EXPECT_THAT(coloured, ::testing::HasSubstr("text\x1b[0m"));
    Log("text", LogLevel::Info);
    EXPECT_THAT(ReadAvailable(master), ::testing::Not(::testing::HasSubstr("\x1b")));
}

TEST_F(StandardError, ThatCannotBeOpenedASecondTime_Works) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can become a user who may not open the terminal";
    }
    const int master = Keep(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_EQ(0, ::grantpt(master));
    ASSERT_EQ(0, ::unlockpt(master));
    const int terminal = Keep(::open(::ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_GE(terminal, 0);
    const std::string text(2000, 'x'); // more than one write of the logger
    const pid_t child = ::fork();
    if (child == 0) {
        const bool isOther = ::setresgid(65534, 65534, 65534) == 0 && ::setresuid(65534, 65534, 65534) == 0;
        ::dup2(terminal, STDERR_FILENO);
        const bool mayOpen = ::open("/proc/self/fd/2", O_WRONLY | O_NOCTTY) >= 0;
        Log(text);
        std::_Exit(isOther && !mayOpen ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_THAT(ReadAvailable(master), ::testing::HasSubstr(": " + text));
}

TEST_F(StandardError, ThatIsNoTerminal_IsNotColoured) {
    const int reader = RedirectToPipe();
    Log("text");
    EXPECT_THAT(ReadAvailable(reader), ::testing::Not(::testing::HasSubstr("\x1b")));
}

/// What JOURNAL_STREAM has for `fd`.
std::string NameOfStream(int fd) {
    struct stat found {};
    EXPECT_EQ(0, ::fstat(fd, &found));
    return std::to_string(found.st_dev) + ':' + std::to_string(found.st_ino);
}

TEST_F(StandardError, ThatTheJournalReads_GetsPrioritiesAndNoTime) {
    const int reader = RedirectToPipe();
    ::setenv("JOURNAL_STREAM", NameOfStream(STDERR_FILENO).c_str(), 1);
    Log("text");
    BOSLogger::SetFormat(LogFormat::Text);
    Log("as text");
    BOSLogger::SetFormat(LogFormat::Json);
    Log("as json");
    BOSLogger::SetFormat(LogFormat::Auto);
    ::unsetenv("JOURNAL_STREAM");
    const auto lines = LinesOf(ReadAvailable(reader));
    ASSERT_EQ(3U, lines.size());
    EXPECT_EQ("<3>[" + std::to_string(::gettid()) + "] file.cpp:12 Function: text", lines[0]);
    EXPECT_THAT(lines[1], ::testing::EndsWith("Function: as text"));
    EXPECT_TRUE(std::isdigit(static_cast<unsigned char>(lines[1][0]))) << lines[1];
    EXPECT_THAT(lines[2], ::testing::StartsWith("{\"time\":"));
}

TEST_F(StandardError, ThatTheJournalDoesNotRead_GetsTimesAlthoughAnotherStreamGoesThere) {
    ::setenv("JOURNAL_STREAM", "1:2", 1);
    const int reader = RedirectToPipe();
    Log("text");
    ::unsetenv("JOURNAL_STREAM");
    const std::string line = ReadAvailable(reader);
    EXPECT_TRUE(std::isdigit(static_cast<unsigned char>(line.at(0)))) << line;
}

TEST_F(StandardError, GetsAtExit_WhatItDidNotTakeBefore) {
    const int reader = RedirectToPipe();
    const pid_t child = ::fork();
    if (child == 0) {
        for (int i = 0; i < 3000; ++i) {
            Log("text");
        }
        ReadAvailable(reader);
        std::exit(0);
    }
    ::waitpid(child, nullptr, 0);
    EXPECT_THAT(ReadAvailable(reader), ::testing::HasSubstr("records were dropped"));
}

} // namespace
} // namespace platform_test
