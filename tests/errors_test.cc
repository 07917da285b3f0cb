#include <gtest/gtest.h>

#include <string>

#include "libfilesystem/aerror.h"

namespace {

std::string NameOf(int value) {
    return GetAERRORA(static_cast<AERROR>(value));
}

TEST(GetAERRORATest, NamesEveryGroupAndKeepsTheHistoricalSpelling) {
    EXPECT_EQ(NameOf(0), "SUCCESS");
    EXPECT_EQ(NameOf(41), "BAD_ARGUMENTS");
    EXPECT_EQ(NameOf(1002), "ASYNCQ_THREADCREATIONFAILED");
    EXPECT_EQ(NameOf(2014), "FS_NEED_AUTHORIZE");
    EXPECT_EQ(NameOf(3014), "CACHE_NO_RESERVED_BLOCKS");
    EXPECT_EQ(NameOf(4004), "CERT_ISSUER_NOT_FOUND");
    EXPECT_EQ(NameOf(6001), "JSON_PARSE_FAILED");
    EXPECT_EQ(NameOf(7005), "AUTH_INVALID_APP");
    EXPECT_EQ(NameOf(8010), "SOCK_ADDRESS_NOT_AVALIABLE");
    EXPECT_EQ(NameOf(8024), "SOCK_UNKNOWN_SOCKET_ERROR");
}

TEST(GetAERRORATest, ValuesOutsideTheTablesAreUnknown) {
    for (int value : {42, 999, 2000, 3000, 3015, 4005, 5000, 6002, 7004, 7007, 8000, 8025, -1}) {
        EXPECT_EQ(NameOf(value), "Unknown") << "value " << value;
    }
}

TEST(ConvertAERRORTest, OnlySuccessAndFileNotFoundHaveTheirOwnValue) {
    EXPECT_EQ(ConvertAERROR(SUCCESS), 0);
    EXPECT_EQ(ConvertAERROR(FILE_NOT_FOUND), -2);
    // Everything else, closely related codes included, is an I/O error.
    for (AERROR code : {FAILED, PATH_NOT_FOUND, ACCESS_DENIED, DIR_NOT_EMPTY, SOCK_TIMEOUT,
                        static_cast<AERROR>(42), static_cast<AERROR>(-1)}) {
        EXPECT_EQ(ConvertAERROR(code), -5) << GetAERRORA(code);
    }
}

}  // namespace
