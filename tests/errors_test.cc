#include <gtest/gtest.h>

#include <string>

#include "libfilesystem/aerror.h"

namespace {

std::string NameOf(int value) {
    return GetAERRORA(static_cast<AERROR>(value));
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
