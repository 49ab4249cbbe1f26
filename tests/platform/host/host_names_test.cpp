// Defends the runtime directory: which directories are used, what may be in them, and that servers leave nothing
// behind.
#include "adapter.h"
#include "bos/logger.h"
#include "kn/name_owner.h"
#include "ns/name_loss.h"
#include "process.h"
#include "raw_socket.h"

#include <sys/file.h>

#include <atomic>
#include <mutex>
#include <optional>

namespace platform_test {
namespace {

namespace fs = std::filesystem;

class RuntimeDirectory : public PlatformTest, public bos::logger::ILogBackEnd {
protected:
    void SetUp() override {
        PlatformTest::SetUp();
        backEndBefore = &bos::logger::BOSLogger::RootLogger().SetBackEnd(*this);
        root = std::getenv("BORVEN_RUNTIME_DIR");
    }

    void TearDown() override {
        ::unsetenv("XDG_RUNTIME_DIR");
        Use(root);
        bos::logger::BOSLogger::RootLogger().SetBackEnd(*backEndBefore);
        PlatformTest::TearDown();
    }

    bool IsEnabled(bos::logger::LogLevel) const override { return true; }
    void Write(bos::logger::LogLevel, const char*, int, const char*, const std::string& message) override {
        const std::lock_guard lock(mutex);
        log += message + '\n';
    }

    static void Use(const fs::path& directory) { ::setenv("BORVEN_RUNTIME_DIR", directory.c_str(), 1); }

    /// Servers are refused, and the log gives the reason.
    void ExpectRefused(const fs::path& directory, const char* reason) {
        Use(directory);
        std::uint32_t iid = 0;
        EXPECT_EQ(KnInvalidHandle, ServiceLocatorRegister("line", nullptr, 0, &iid));
        NsHandle nameServer = 0;
        EXPECT_EQ(KnStatusDenied, NsCreate(nullptr, 0, &nameServer));
        EXPECT_THAT(log, ::testing::HasSubstr(directory.string()));
        EXPECT_THAT(log, ::testing::HasSubstr(reason));
    }

    /// Neither server nor client uses what stands at `file`, and the log names it.
    void ExpectFileRefused(const std::string& file, const char* reason) {
        std::uint32_t iid = 0;
        EXPECT_EQ(KnInvalidHandle, ServiceLocatorRegister("line", nullptr, 0, &iid));
        EXPECT_THAT(log, ::testing::HasSubstr((root / file).string() + ' ' + reason));
        log.clear();
        KnHandle handle = 0;
        EXPECT_EQ(KnStatusDenied, ServiceLocatorConnect("line", 0, &handle));
        EXPECT_THAT(log, ::testing::HasSubstr((root / file).string() + ' ' + reason));
        log.clear();
    }

    fs::path root;
    bos::logger::ILogBackEnd* backEndBefore = nullptr;
    std::mutex mutex;
    std::string log;
};

TEST_F(RuntimeDirectory, ThatIsMissing_IsMadeForItsOwnerOnly_ByAServer) {
    Use(root / "made");
    KnHandle handle = 0;
    EXPECT_EQ(KnStatusNotFound, ServiceLocatorConnect("line", 0, &handle));
    EXPECT_FALSE(fs::exists(root / "made")) << "a client creates nothing";
    {
        const Handle server = RegisterStatic();
        EXPECT_EQ(fs::perms::owner_all, fs::status(root / "made").permissions());
    }
    EXPECT_TRUE(fs::remove(root / "made")) << "nothing is left in it";
}

TEST_F(RuntimeDirectory, WithoutAChoice_IsTheSessions) {
    ::unsetenv("BORVEN_RUNTIME_DIR");
    ::setenv("XDG_RUNTIME_DIR", root.c_str(), 1);
    {
        const Handle server = RegisterStatic();
        const Handle client = ConnectStatic();
        EXPECT_TRUE(fs::is_socket(root / "borven" / "static" / "line"));
    }
    EXPECT_TRUE(fs::remove(root / "borven"));
}

TEST_F(RuntimeDirectory, ThatOthersMayEnter_IsRefused) {
    fs::create_directory(root / "open");
    for (const unsigned mode : {0701u, 0704u, 0755u, 0720u, 0740u, 0750u, 0770u, 0777u}) {
        ASSERT_EQ(0, ::chmod((root / "open").c_str(), mode));
        ExpectRefused(root / "open", "0700");
        KnHandle handle = 0;
        EXPECT_EQ(KnStatusDenied, ServiceLocatorConnect("line", 0, &handle));
        log.clear();
    }
    fs::remove(root / "open");
}

// A server that lets the group in may be there.
TEST_F(RuntimeDirectory, ThatItsGroupMayEnter_IsUsedByClients_AndRefusedByServers) {
    fs::create_directory(root / "group");
    ASSERT_EQ(0, ::chmod((root / "group").c_str(), 0710));
    Use(root / "group");
    KnHandle handle = 0;
    EXPECT_EQ(KnStatusNotFound, ServiceLocatorConnect("line", 0, &handle));
    EXPECT_EQ("", log);
    std::uint32_t iid = 0;
    EXPECT_EQ(KnInvalidHandle, ServiceLocatorRegister("line", nullptr, 0, &iid));
    EXPECT_THAT(log, ::testing::HasSubstr("0700"));
    fs::remove(root / "group");
}

TEST_F(RuntimeDirectory, ThatIsALink_IsRefused) {
    fs::create_directory(root / "target");
    ASSERT_EQ(0, ::chmod((root / "target").c_str(), 0700));
    fs::create_directory_symlink(root / "target", root / "link");
    ExpectRefused(root / "link", "symbolic link");
    fs::remove(root / "link");
    fs::remove(root / "target");
}

TEST_F(RuntimeDirectory, ThatIsAFile_IsRefused) {
    std::ofstream(root / "file") << "text";
    ExpectRefused(root / "file", "not a directory");
    fs::remove(root / "file");
}

TEST_F(RuntimeDirectory, WhoseParentIsMissing_IsRefused) {
    ExpectRefused(root / "no" / "such", "No such file");
}

TEST_F(RuntimeDirectory, InTheRootDirectory_IsNotCreated) {
    const fs::path directory = "/borven-test-" + std::to_string(::getpid());
    ExpectRefused(directory, "nothing is created in the root directory");
    EXPECT_FALSE(fs::exists(directory));
}

TEST_F(RuntimeDirectory, WhosePathHasNoNameOfItsOwn_IsRefused) {
    ExpectRefused("/", "must end in the directory's own name");
    ExpectRefused(root / ".", "must end in the directory's own name");
    ExpectRefused(root / "..", "must end in the directory's own name");
}

TEST_F(RuntimeDirectory, WithASlashBehindIt_OrARelativePath_Works) {
    Use(root / "made/");
    { RegisterStatic(); }
    EXPECT_TRUE(fs::remove(root / "made"));
    const fs::path before = fs::current_path();
    fs::current_path(root);
    Use("made");
    { RegisterStatic(); }
    fs::current_path(before);
    EXPECT_TRUE(fs::remove(root / "made"));
}

TEST_F(RuntimeDirectory, BelowOneThatOthersMayWriteTo_IsRefused_UnlessThatIsSticky) {
    const fs::path above = root / "shared";
    fs::create_directory(above);
    for (const unsigned mode : {0777u, 0770u, 0702u}) {
        ASSERT_EQ(0, ::chmod(above.c_str(), mode));
        ExpectRefused(above / "made", "the directory above it is writable by others and not sticky");
        EXPECT_TRUE(fs::is_empty(above));
        KnHandle handle = 0;
        EXPECT_EQ(KnStatusDenied, ServiceLocatorConnect("line", 0, &handle));
        log.clear();
    }
    ASSERT_EQ(0, ::chmod(above.c_str(), 01777));
    { RegisterStatic(); }
    fs::remove_all(above);
}

TEST_F(RuntimeDirectory, BelowOneOfAnotherUser_IsRefused) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can give a directory away";
    }
    const fs::path above = root / "theirs";
    fs::create_directory(above);
    ASSERT_EQ(0, ::chown(above.c_str(), 65534, 65534));
    ExpectRefused(above / "made", "the directory above it belongs to another user (uid 65534)");
    EXPECT_TRUE(fs::is_empty(above));
    fs::remove(above);
}

TEST_F(RuntimeDirectory, OfAnotherUser_IsRefused) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can give a directory away";
    }
    fs::create_directory(root / "theirs");
    ASSERT_EQ(0, ::chmod((root / "theirs").c_str(), 0700));
    ASSERT_EQ(0, ::chown((root / "theirs").c_str(), 65534, 65534));
    ExpectRefused(root / "theirs", "another user");
    fs::remove(root / "theirs");
}

TEST_F(RuntimeDirectory, WithALongPath_Works) {
    fs::path path = root;
    for (int i = 0; i < 10; ++i) {
        path /= std::string(60, 'd');
        fs::create_directory(path);
    }
    ASSERT_EQ(0, ::chmod(path.c_str(), 0700));
    Use(path);
    {
        const std::string name(255, 'n');
        const Handle server = RegisterStatic(name.c_str());
        const Handle client = ConnectStatic(name.c_str());
        const Echoers echoers(server.Get());
        EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 1));
    }
    EXPECT_TRUE(fs::is_empty(path));
    fs::remove_all(root / std::string(60, 'd'));
}

TEST_F(RuntimeDirectory, ThatIsChosenAnewMeanwhile_StillLosesItsNamesAtTheEnd) {
    fs::create_directory(root / "first");
    ASSERT_EQ(0, ::chmod((root / "first").c_str(), 0700));
    Use(root / "first");
    {
        const Handle server = RegisterStatic();
        Use(root / "second");
    }
    EXPECT_TRUE(fs::remove(root / "first")) << "nothing is left in it";
}

TEST_F(RuntimeDirectory, ThatSomebodyKeepsLocked_StopsNobodyForGood) {
    Handle before = RegisterStatic("before");
    const int lock = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(0, ::flock(lock, LOCK_EX));
    std::uint32_t iid = 0;
    EXPECT_EQ(KnInvalidHandle, ServiceLocatorRegister("line", nullptr, 0, &iid));
    EXPECT_THAT(log, ::testing::HasSubstr("locked"));
    EXPECT_EQ(KnStatusOk, before.Close());
    ::close(lock);
    Reclaim("before");
}

TEST_F(RuntimeDirectory, WithWhatACrashLeftUnfinished_Works) {
    {
        const RawSocket unfinished;
        unfinished.ListenAs("unfinished");
    }
    const Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
}

TEST_F(RuntimeDirectory, AFileUnderAName_IsNeitherReplacedNorRemoved) {
    fs::create_directory(root / "static");
    std::ofstream(root / "static" / "line") << "text";
    std::uint32_t iid = 0;
    EXPECT_EQ(KnInvalidHandle, ServiceLocatorRegister("line", nullptr, 0, &iid));
    EXPECT_THAT(
        log, ::testing::HasSubstr((root / "static" / "line").string() + " is not a socket of the directory's owner"));
    KnHandle handle = 0;
    EXPECT_EQ(KnStatusDenied, ServiceLocatorConnect("line", 0, &handle));
    EXPECT_TRUE(fs::is_regular_file(root / "static" / "line"));
    fs::remove_all(root / "static");
}

TEST_F(RuntimeDirectory, ALiveSocketOfAnotherKind_IsNotStolen) {
    const RawSocket other(SOCK_STREAM);
    other.ListenAs("static/line");
    std::uint32_t iid = 0;
    EXPECT_EQ(KnInvalidHandle, ServiceLocatorRegister("line", nullptr, 0, &iid));
    EXPECT_THAT(log, ::testing::HasSubstr("is a socket of another program"));
    EXPECT_TRUE(fs::is_socket(root / "static" / "line"));
    other.Forget();
}

TEST_F(RuntimeDirectory, ASocketOfAnotherUser_IsNeitherUsedNorReplaced) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can give a socket away";
    }
    const RawSocket planted;
    planted.ListenAs("static/line");
    ASSERT_EQ(0, ::chown(RuntimePath("static/line").c_str(), 65534, 65534));
    ExpectFileRefused("static/line", "is not a socket of the directory's owner");
    planted.Forget();
}

TEST_F(RuntimeDirectory, AFolderThatSomethingElseHasPlanted_IsNotUsed) {
    const fs::path folder = root / "static";
    fs::create_directory(root / "elsewhere");
    fs::create_directory_symlink(root / "elsewhere", folder);
    ExpectFileRefused("static", "is not a directory that only its owner may write to");
    fs::remove(folder);
    std::ofstream(folder) << "text";
    ExpectFileRefused("static", "is not a directory that only its owner may write to");
    fs::remove(folder);
    fs::create_directory(folder);
    for (const unsigned mode : {0720u, 0702u, 0777u}) {
        ASSERT_EQ(0, ::chmod(folder.c_str(), mode));
        ExpectFileRefused("static", "is not a directory that only its owner may write to");
    }
    fs::remove(folder);
    fs::remove(root / "elsewhere");
}

TEST_F(RuntimeDirectory, AServerWhoseNameAnotherHas_LeavesItToIt) {
    Handle first = RegisterStatic();
    TakeName("line");
    EXPECT_EQ(KnStatusOk, first.Close());
    const RawSocket client;
    EXPECT_EQ(0, client.Connect("static/line"));
}

/// Removes something, and waits until the static connection "line" can be found again where it was.
class RemovedName : public RuntimeDirectory {
protected:
    void SetUp() override {
        RuntimeDirectory::SetUp();
        fs::create_directory(directory = root / "runtime");
        ASSERT_EQ(0, ::chmod(directory.c_str(), 0700));
        Use(directory);
        server.emplace(RegisterStatic());
        client.emplace(ConnectStatic());
        echoers.emplace(server->Get());
    }

    void TearDown() override {
        ExpectServed();
        echoers.reset();
        client.reset();
        server.reset();
        EXPECT_TRUE(fs::remove(directory)) << "nothing is left in it";
        RuntimeDirectory::TearDown();
    }

    void ExpectServed() {
        KnHandle handle = KnInvalidHandle;
        Await("the name should be back", [&] { return ServiceLocatorConnect("line", 1000, &handle) == KnStatusOk; });
        EXPECT_EQ(KnStatusOk, CallWith(handle, 1));
        EXPECT_EQ(KnStatusOk, KnHandleClose(handle));
        EXPECT_EQ(KnStatusOk, CallWith(client->Get(), 1)) << "a client that was connected notices nothing";
        EXPECT_EQ(fs::perms::owner_all, fs::status(directory).permissions());
    }

    /// The server may be faster, and put a name back before its folder is removed.
    static void RemoveAll(const fs::path& path) {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }

    fs::path directory;
    std::optional<Handle> server;
    std::optional<Handle> client;
    std::optional<Echoers> echoers;
};

TEST_F(RemovedName, WithItsFolder_IsBack) {
    RemoveAll(directory / "static");
}

TEST_F(RemovedName, WithTheRuntimeDirectory_IsBack) {
    RemoveAll(directory);
    ExpectServed();
    RemoveAll(directory); // what was made anew is watched, too
}

TEST_F(RemovedName, WhenItWasRenamed_IsBack) {
    fs::rename(directory / "static" / "line", directory / "static" / "other");
    ExpectServed();
    EXPECT_TRUE(fs::remove(directory / "static" / "other")); // under a name of its own it is no longer the server's
}

TEST_F(RemovedName, WhenItsFolderWasRenamed_IsBack) {
    fs::rename(directory / "static", directory / "moved");
    ExpectServed();
    fs::remove_all(directory / "moved");
}

TEST_F(RemovedName, WhenTheRuntimeDirectoryWasRenamed_IsBack_AndNothingIsLeftWhereItWent) {
    fs::rename(directory, root / "moved");
    ExpectServed();
    EXPECT_TRUE(fs::remove(root / "moved")) << "nothing is left in it";
}

TEST_F(RemovedName, WhileTheDirectoryIsLocked_IsBackAfterwards) {
    const int lock = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(0, ::flock(lock, LOCK_EX));
    fs::remove(directory / "static" / "line");
    EXPECT_EQ(KnStatusOk, CallWith(client->Get(), 1));
    EXPECT_FALSE(fs::exists(directory / "static" / "line"));
    ::close(lock);
}

TEST_F(RemovedName, WhileClientsWaitAtTheOldSocket_LosesNoneOfThem) {
    std::vector<RawSocket> waiting(40); // more than are admitted at once
    for (const RawSocket& each : waiting) {
        ASSERT_EQ(0, each.Connect("static/line"));
        ASSERT_TRUE(each.Greet());
    }
    RemoveAll(directory);
    for (const RawSocket& each : waiting) {
        EXPECT_EQ(KnStatusOk, each.Answer());
    }
}

TEST_F(RuntimeDirectory, ThatIsMadeUnusable_LosesTheName_AndTheLogHasTheReason) {
    fs::create_directory(root / "gone");
    ASSERT_EQ(0, ::chmod((root / "gone").c_str(), 0700));
    Use(root / "gone");
    std::atomic<int> lost{0};
    NsOnNameLost([](const char*, void* count) { ++*static_cast<std::atomic<int>*>(count); }, &lost);
    {
        const Handle server = RegisterStatic();
        const Echoers echoers(server.Get());
        const Handle client = ConnectStatic();
        fs::create_directory_symlink(root, root / "link");
        // At once, so that the server finds nothing missing that it could make anew.
        ASSERT_EQ(0,
                  ::renameat2(AT_FDCWD, (root / "link").c_str(), AT_FDCWD, (root / "gone").c_str(), RENAME_EXCHANGE));
        Await("the name should be lost", [&] { return lost.load() != 0; });
        EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 1));
    }
    NsOnNameLost(nullptr, nullptr);
    EXPECT_THAT(log, ::testing::HasSubstr("it is a symbolic link"));
    EXPECT_THAT(log, ::testing::HasSubstr("the name line was removed, and cannot be claimed again"));
    fs::remove(root / "gone");
    fs::remove_all(root / "link");
}

TEST_F(RuntimeDirectory, ManyStartsAndStops_LeaveNothingOpen) {
    { RegisterStatic(); }
    const std::size_t before = OpenDescriptors();
    for (int i = 0; i < 20; ++i) {
        Handle server = RegisterStatic();
        const Handle client = ConnectStatic();
        ASSERT_EQ(KnStatusOk, Publish("service"));
        const Joined joined = Join("service");
        KnHandleCloseServerEnds();
    }
    // The last ends that a thread looked up stay with it until it looks up others.
    EXPECT_LE(OpenDescriptors(), before + 2);
}

TEST_F(RuntimeDirectory, AName_HasTheProcessThatServesIt) {
    KnCaller owner;
    EXPECT_EQ(KnStatusNotFound, KnOwnerOfName(KnNameKind::Connection, "line", &owner));
    std::uint32_t iid = 0;
    const KnHandle handle = ServiceLocatorRegister("line", nullptr, 0, &iid);
    ASSERT_NE(KnInvalidHandle, handle);
    EXPECT_EQ(KnStatusOk, KnOwnerOfName(KnNameKind::Connection, "line", &owner));
    EXPECT_EQ(::getpid(), owner.pid);
    EXPECT_EQ(::geteuid(), owner.uid);
    EXPECT_NE(0u, owner.startTime);
    EXPECT_STREQ("platform_host_t", owner.program); // the kernel keeps 15 characters
    EXPECT_EQ(KnStatusNotFound, KnOwnerOfName(KnNameKind::Service, "line", &owner));
    KnHandleClose(handle);
    EXPECT_EQ(KnStatusNotFound, KnOwnerOfName(KnNameKind::Connection, "line", &owner));
}

TEST_F(RuntimeDirectory, TheOwnerOfAName_IsNotLookedForInADirectoryThatIsNotSafe) {
    const fs::path open = root / "open";
    fs::create_directory(open);
    fs::permissions(open, fs::perms(0755));
    Use(open);
    KnCaller owner;
    EXPECT_EQ(KnStatusDenied, KnOwnerOfName(KnNameKind::Connection, "line", &owner));
    EXPECT_THAT(log, ::testing::HasSubstr("other users may enter it"));
    EXPECT_EQ(KnStatusInvalidArgument, KnOwnerOfName(KnNameKind::Connection, "a/b", &owner));
    EXPECT_EQ(KnStatusInvalidArgument, KnOwnerOfName(KnNameKind::Connection, nullptr, &owner));
    EXPECT_EQ(KnStatusInvalidArgument, KnOwnerOfName(KnNameKind::Connection, "line", nullptr));
    fs::remove(open);
}

} // namespace
} // namespace platform_test
