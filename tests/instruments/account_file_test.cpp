// Defends the account file as such: one server writes it, the next one keeps it as the previous account, and what a
// reader is given instead of an account is an error, never a crash.
#include "instruments/account_file.h"

#include "instruments/read_account.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <barrier>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using instruments::AccountCapacities;
using instruments::AccountError;
using instruments::AccountFile;
using instruments::AccountFileError;
using instruments::AccountReader;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::SizeIs;

constexpr AccountCapacities Small{
    .publishers = 8, .subscribers = 8, .clients = 8, .textBytes = 4096, .latencyPages = 4};

class AccountFileTest : public testing::Test {
protected:
    AccountFileTest() {
        std::string pattern = testing::TempDir() + "account-XXXXXX";
        directory = ::mkdtemp(pattern.data());
    }
    ~AccountFileTest() override { std::filesystem::remove_all(directory); }

    std::string Path() const { return directory + "/account"; }

    std::unique_ptr<AccountFile> MakeFile(std::int64_t pid) const {
        auto file = std::make_unique<AccountFile>(directory, Small);
        file->Head().pid = pid;
        file->Publish();
        return file;
    }

    /// Replaces what the file has in place of `field` of its header.
    template <typename Field>
    void Damage(const std::function<Field&(instruments::layout::Header&)>& field, Field value) const {
        const AccountFile other(std::nullopt, Small);
        auto& head = other.Head();
        const auto offset = reinterpret_cast<const char*>(&field(head)) - reinterpret_cast<const char*>(&head);
        std::fstream file(Path(), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(offset);
        file.write(reinterpret_cast<const char*>(&value), sizeof value);
    }

    /// Returns: the names in the directory, in order.
    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    std::string ErrorOfReading() const {
        try {
            AccountReader(Path()).Read();
        } catch (const AccountError& error) {
            return error.what();
        }
        return {};
    }

    std::string directory;
};

TEST_F(AccountFileTest, AnAccount_HasItsNameOnlyOnceItCanBeRead) {
    AccountFile file(directory, Small);
    EXPECT_FALSE(std::filesystem::exists(Path()));
    file.Publish();
    EXPECT_EQ(AccountReader(Path()).Read().bus.accepted, 0U);
}

TEST_F(AccountFileTest, TheFile_IsForItsUserAlone) {
    const auto file = MakeFile(1);
    struct stat status {};
    ASSERT_EQ(::stat(Path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(AccountFileTest, ANewAccount_KeepsTheOneBefore) {
    MakeFile(1);
    MakeFile(2);
    const auto third = MakeFile(3);
    EXPECT_EQ(AccountReader(Path()).Read().server.pid, 3);
    EXPECT_EQ(AccountReader(Path() + ".previous").Read().server.pid, 2);
}

TEST_F(AccountFileTest, TheAccountOfAServerThatRuns_IsNotReplaced) {
    const auto first = MakeFile(1);
    AccountFile second(directory, Small);
    second.Head().pid = 2;
    EXPECT_THROW(second.Publish(), AccountFileError);
    EXPECT_EQ(AccountReader(Path()).Read().server.pid, 1);
    EXPECT_EQ(AccountReader(second.Memory()).Read().server.pid, 2); // in memory only
    EXPECT_TRUE(second.Commit(second.Regions().subscribers, 8));
    EXPECT_THAT(Names(), ElementsAre("account"));
}

TEST_F(AccountFileTest, OfServersThatStartAtOnce_OneHasTheFileAndTheOthersReplaceNothing) {
    MakeFile(0);
    for (std::int64_t round = 1; round <= 50; ++round) {
        constexpr int count = 4;
        std::vector<std::unique_ptr<AccountFile>> files;
        for (std::int64_t i = 0; i < count; ++i) {
            files.push_back(std::make_unique<AccountFile>(directory, Small));
            files.back()->Head().pid = round * count + i;
        }
        std::array<std::int64_t, count> published{};
        std::barrier together(count);
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < count; ++i) {
            threads.emplace_back([&, i] {
                together.arrive_and_wait();
                try {
                    files[i]->Publish();
                    published[i] = files[i]->Head().pid;
                } catch (const AccountFileError&) {
                    published[i] = 0;
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        const auto before = AccountReader(Path() + ".previous").Read().server.pid;
        const auto now = AccountReader(Path()).Read().server.pid;
        ASSERT_EQ(count - std::count(published.begin(), published.end(), 0), 1);
        ASSERT_EQ(now, *std::max_element(published.begin(), published.end()));
        ASSERT_EQ(before / count, round - 1);
        ASSERT_THAT(Names(), ElementsAre("account", "account.previous"));
    }
}

TEST_F(AccountFileTest, AStartThatFails_LeavesTheAccountsOfTheServersBefore) {
    MakeFile(1);
    MakeFile(2);
    { const AccountFile failed(directory, Small); }
    EXPECT_EQ(AccountReader(Path()).Read().server.pid, 2);
    EXPECT_EQ(AccountReader(Path() + ".previous").Read().server.pid, 1);
    EXPECT_THAT(Names(), ElementsAre("account", "account.previous"));
}

TEST_F(AccountFileTest, WhatAServerThatWasKilledBeforeItServedHasLeft_IsRemovedByTheNextOne) {
    std::ofstream(Path() + ".new.123") << "left";
    std::ofstream(Path() + ".newer") << "another file";
    const AccountFile starting(directory, Small);
    const auto names = Names();
    EXPECT_THAT(names, SizeIs(2)); // the one that is starting
    AccountFile second(directory, Small);
    EXPECT_THAT(Names(), SizeIs(3)); // and the one that starts at the same time
    EXPECT_THAT(Names(), IsSupersetOf(names));
    EXPECT_THAT(Names(), testing::Contains("account.newer"));
}

TEST_F(AccountFileTest, AReader_LearnsThatItsFileWasReplaced) {
    MakeFile(1);
    const AccountReader reader(Path());
    EXPECT_FALSE(reader.IsReplaced());
    const auto second = MakeFile(2);
    EXPECT_TRUE(reader.IsReplaced());
    EXPECT_EQ(reader.Read().server.pid, 1); // what it has is still there
}

TEST_F(AccountFileTest, WithoutADirectory_TheAccountIsInMemory) {
    AccountFile file(std::nullopt, Small);
    file.Head().pid = 5;
    file.Publish();
    EXPECT_EQ(AccountReader(file.Memory()).Read().server.pid, 5);
    EXPECT_TRUE(std::filesystem::is_empty(directory));
}

TEST_F(AccountFileTest, ADirectoryThatIsMissing_IsAnErrorWithItsName) {
    try {
        AccountFile(directory + "/none", Small);
        FAIL();
    } catch (const AccountFileError& error) {
        EXPECT_THAT(error.what(), HasSubstr(directory + "/none/account"));
    }
}

TEST_F(AccountFileTest, Commit_BeyondTheCapacity_IsRefused) {
    AccountFile file(directory, Small);
    EXPECT_TRUE(file.Commit(file.Regions().subscribers, 8));
    EXPECT_FALSE(file.Commit(file.Regions().subscribers, 9));
    file.Head().regions.subscribers.count = 9; // others may write into the file
    EXPECT_FALSE(file.Commit(file.Regions().subscribers, 9));
}

TEST_F(AccountFileTest, WhatWasCommitted_TakesRoomOnTheDiskAndTheRestDoesNot) {
    AccountCapacities large = Small;
    large.textBytes = 64U << 20;
    AccountFile file(directory, large);
    file.Publish();
    struct stat before {};
    ASSERT_EQ(::stat(Path().c_str(), &before), 0);
    EXPECT_LT(before.st_blocks * 512, 8 << 20);
    ASSERT_TRUE(file.Commit(file.Regions().text, (32U << 20) / 8));
    struct stat after {};
    ASSERT_EQ(::stat(Path().c_str(), &after), 0);
    EXPECT_GE((after.st_blocks - before.st_blocks) * 512, 32 << 20);
}

TEST_F(AccountFileTest, NoFile_IsNoAccount) {
    EXPECT_THROW(AccountReader{Path()}, instruments::NoAccountError);
}

TEST_F(AccountFileTest, AnotherFile_IsAnErrorAndNoCrash) {
    std::ofstream(Path()) << "something else";
    EXPECT_THAT(ErrorOfReading(), HasSubstr("is not an account"));
    std::ofstream(Path()) << std::string(100'000, 'x');
    EXPECT_THAT(ErrorOfReading(), HasSubstr("is not an account"));
    std::filesystem::remove(Path());
    std::filesystem::create_directory(Path());
    EXPECT_THAT(ErrorOfReading(), testing::Not(testing::IsEmpty()));
}

TEST_F(AccountFileTest, AnotherVersion_IsAnError) {
    MakeFile(1);
    Damage<std::uint32_t>(
        [](auto& head) -> auto& { return head.version; }, 99);
    EXPECT_THAT(ErrorOfReading(), HasSubstr("another version"));
}

TEST_F(AccountFileTest, ARegionOutsideTheFile_IsAnError) {
    MakeFile(1);
    Damage<std::uint64_t>(
        [](auto& head) -> auto& { return head.regions.subscribers.offset; }, 1ULL << 60);
    EXPECT_THAT(ErrorOfReading(), HasSubstr("damaged"));
    Damage<std::uint64_t>(
        [](auto& head) -> auto& { return head.regions.subscribers.offset; }, 0);
    Damage<std::uint64_t>(
        [](auto& head) -> auto& { return head.regions.subscribers.count; }, ~0ULL);
    EXPECT_THAT(ErrorOfReading(), HasSubstr("damaged"));
}

} // namespace
