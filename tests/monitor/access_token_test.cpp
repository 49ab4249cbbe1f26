// Defends the token: it cannot be guessed, only its owner can read it, and a weak one is refused.
#include "access_token.h"

#include "common/secret.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

using msgbus_monitor::ReadToken;
using msgbus_monitor::TokenError;
using msgbus_monitor::WriteToken;

class AccessTokenTest : public testing::Test {
protected:
    AccessTokenTest() {
        std::string name = (std::filesystem::temp_directory_path() / "borven-token-XXXXXX").string();
        directory = ::mkdtemp(name.data());
        path = directory + "/token";
    }
    ~AccessTokenTest() override { std::filesystem::remove_all(directory); }

    void Write(const std::string& bytes, mode_t mode = S_IRUSR) {
        std::filesystem::remove(path);
        std::ofstream(path, std::ios::binary) << bytes;
        ::chmod(path.c_str(), mode);
    }

    std::string directory;
    std::string path;
};

TEST_F(AccessTokenTest, WrittenToken_IsReadBackAndReadableByItsOwnerOnly) {
    const std::string token = common::MakeSecret();
    Write("old", S_IRUSR | S_IRGRP | S_IROTH);

    WriteToken(path, token);

    EXPECT_EQ(ReadToken(path), token);
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(AccessTokenTest, TokenWithOrWithoutALineEnd_IsRead) {
    Write("0123456789-._~+/=\n");
    EXPECT_EQ(ReadToken(path), "0123456789-._~+/=");
    Write("0123456789abcdef");
    EXPECT_EQ(ReadToken(path), "0123456789abcdef");
}

TEST_F(AccessTokenTest, WeakOrUnusableTokens_AreRefused) {
    for (const std::string& bytes :
         {std::string(), std::string("\n"), std::string("0123456789abcde"), std::string("0123456789 abcdef"),
          std::string("0123456789abcdef\n\n"), std::string("0123456789abcdef\r\n"), std::string(1025, 'a'),
          std::string("0123456789abcde\0f", 17)}) {
        Write(bytes);
        EXPECT_THROW(ReadToken(path), TokenError) << bytes;
    }
}

TEST_F(AccessTokenTest, TokenThatOthersMayRead_IsRefused) {
    for (const mode_t mode : {0440U, 0404U, 0402U}) {
        Write("0123456789abcdef", mode);
        EXPECT_THROW(ReadToken(path), TokenError) << mode;
    }
}

TEST_F(AccessTokenTest, MissingFilesAndDirectories_AreErrors) {
    EXPECT_THROW(ReadToken(path), TokenError);
    EXPECT_THROW(ReadToken(directory), TokenError);
    EXPECT_THROW(WriteToken(directory + "/missing/token", "0123456789abcdef"), TokenError);
    EXPECT_THROW(WriteToken(directory, "0123456789abcdef"), TokenError);
}

} // namespace
