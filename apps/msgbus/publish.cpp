#include "arguments.h"
#include "end_watch.h"
#include "msgbus/publisher.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace {

/// Reads lines from standard input until the input or the program ends.
class InputLines final {
public:
    explicit InputLines(const EndWatch& endWatch) : watch(endWatch) {}

    /// Returns: the next line without its newline; nothing at the end of the input or when the program is to end.
    /// Throws: std::system_error; std::invalid_argument for a line that is too long.
    /// Blocks: until a line is there, the input ends or the program is to end.
    std::optional<std::string> Next() {
        while (true) {
            if (const auto end = pending.find('\n'); end != std::string::npos) {
                std::string line = pending.substr(0, end);
                pending.erase(0, end + 1);
                return line;
            }
            if (pending.size() > LongestLine) {
                throw std::invalid_argument("the line is longer than any 64-bit integer");
            }
            if (!Read()) {
                if (pending.empty() || watch.WhyEnded() != EndWatch::Cause::None) {
                    return std::nullopt;
                }
                return std::exchange(pending, {});
            }
        }
    }

private:
    static constexpr std::size_t LongestLine = 4096;

    /// Appends what is available to `pending`.
    /// Returns: false at the end of the input, or when the program is to end.
    bool Read() {
        std::array<pollfd, 2> watched{{{STDIN_FILENO, POLLIN, 0}, {watch.Descriptor(), POLLIN, 0}}};
        while (::poll(watched.data(), watched.size(), -1) < 0 && errno == EINTR) {
        }
        if (watched[1].revents != 0) {
            return false;
        }
        std::array<char, 4096> buffer;
        const ssize_t count = ::read(STDIN_FILENO, buffer.data(), buffer.size());
        if (count < 0) {
            if (errno == EINTR || errno == EAGAIN) {
                return true;
            }
            throw std::system_error(errno, std::generic_category(), "cannot read standard input");
        }
        pending.append(buffer.data(), static_cast<std::size_t>(count));
        return count > 0;
    }

    const EndWatch& watch;
    std::string pending;
};

ExitStatus PublishInput(msgbus::Publisher& publisher, const EndWatch& watch) {
    InputLines lines(watch);
    for (std::uint64_t number = 1;; ++number) {
        try {
            const auto line = lines.Next();
            if (!line) {
                return ExitStatus::Done;
            }
            publisher.Push(ParseValue(*line));
        } catch (const std::invalid_argument& error) {
            throw std::invalid_argument("line " + std::to_string(number) + ": " + error.what() +
                                        "; values published before it: " + std::to_string(number - 1));
        }
    }
}

ExitStatus PublishValues(msgbus::Publisher& publisher, const std::vector<std::int64_t>& values, const EndWatch& watch) {
    for (std::size_t index = 0; index < values.size(); ++index) {
        if (watch.WhyEnded() != EndWatch::Cause::None) {
            Say("interrupted: " + std::to_string(index) + " of " + std::to_string(values.size()) +
                " values were published");
            return ExitStatus::Failed;
        }
        publisher.Push(values[index]);
    }
    return ExitStatus::Done;
}

} // namespace

ExitStatus Publish(const PublishArguments& arguments) {
    std::vector<std::int64_t> values;
    for (const auto& text : arguments.values) {
        values.push_back(ParseValue(text));
    }
    WarnAboutCutTopic(arguments.topic);

    const EndWatch watch(std::nullopt, EndWatch::Output::Ignored);
    msgbus::Publisher publisher(arguments.topic, arguments.options);
    if (arguments.verbose) {
        Say("publishing to topic '" + arguments.topic + "' (id " + std::to_string(publisher.Id()) + ")");
    }
    const ExitStatus status =
        arguments.fromInput ? PublishInput(publisher, watch) : PublishValues(publisher, values, watch);
    publisher.Close();
    return status;
}
