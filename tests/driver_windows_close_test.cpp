// What a close meets on Windows alone, and what a rebuilt file keeps there. The fault layer plays
// what wine has not: encryption, and names that outlive their removal.
#include "testing/driver_fixture.h"

#include <gmock/gmock.h>

#include <aclapi.h>
#include <sddl.h>

using platform_faults::Call;
using ::testing::ElementsAre;
using ::testing::SizeIs;

namespace {

class WindowsCloseTest : public DriverTest {
protected:
    std::string const m_sound = path("a.mp3");
    std::string const m_edited = frames(1) + frames(2, 5) + frames(4).substr(96);

    FFDHandle edited() {
        FFDHandle const handle = open_with(m_sound, frames(4));
        EXPECT_EQ(insert(handle, 96, frames(2, 5)), 0u);
        return handle;
    }
    std::string access_list() const {
        PSECURITY_DESCRIPTOR pDescriptor = nullptr;
        char* pszText = nullptr;
        EXPECT_EQ(GetNamedSecurityInfoA(m_sound.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION,
                                        nullptr, nullptr, nullptr, nullptr, &pDescriptor),
                  0u);
        ConvertSecurityDescriptorToStringSecurityDescriptorA(
            pDescriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &pszText, nullptr);
        std::string const text = pszText;
        LocalFree(pszText);
        LocalFree(pDescriptor);
        return text;
    }
};

TEST_F(WindowsCloseTest, TheAccessListStays) {
    write_file(m_sound, frames(4));
    std::string const before = access_list();
    ASSERT_NE(before.find("WD)"), std::string::npos) << before; // everybody may do something
    PSECURITY_DESCRIPTOR pOwner = nullptr;
    PSID pSid = nullptr;
    ASSERT_EQ(GetNamedSecurityInfoA(m_sound.c_str(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION,
                                    &pSid, nullptr, nullptr, nullptr, &pOwner),
              0u);
    char* pszSid = nullptr;
    ASSERT_TRUE(ConvertSidToStringSidA(pSid, &pszSid));
    PSECURITY_DESCRIPTOR pOwnerAlone = nullptr;
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorA(
        (std::string("D:P(A;;FA;;;") + pszSid + ")").c_str(), SDDL_REVISION_1, &pOwnerAlone,
        nullptr));
    ASSERT_TRUE(SetFileSecurityA(m_sound.c_str(), DACL_SECURITY_INFORMATION, pOwnerAlone));
    for (HLOCAL hBlock : {pOwner, static_cast<HLOCAL>(pszSid), pOwnerAlone}) {
        LocalFree(hBlock);
    }
    std::string const set = access_list();
    ASSERT_NE(set, before);
    FFDHandle const handle = open(m_sound);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(insert(handle, 96, frames(2, 5)), 0u);
    close(handle);
    EXPECT_EQ(read_file(m_sound), m_edited);
    EXPECT_EQ(access_list(), set);
}

TEST_F(WindowsCloseTest, WhatIsEncryptedIsNeverCopiedInTheClear) {
    FFDHandle handle = edited();
    platform_faults::pretend_encryption(false);
    close(handle, 29);
    platform_faults::reset();
    EXPECT_THAT(listing(), ElementsAre("a.DIR", "a.mp3")); // no copy, and every edit
    handle = open(m_sound);
    ASSERT_NE(handle, nullptr);
    platform_faults::pretend_encryption(true);
    close(handle);
    EXPECT_EQ(read_file(m_sound), m_edited);
}

// The sound file, the .DIR file and the marker keep their names for a while: the close waits, and
// so does an open behind it.
TEST_F(WindowsCloseTest, DeletedAndStillThere) {
    FFDHandle handle = edited();
    platform_faults::linger_after_removal(3);
    close(handle);
    EXPECT_THAT(listing(), ElementsAre("a.mp3"));
    EXPECT_EQ(read_file(m_sound), m_edited);
    handle = open(m_sound);
    ASSERT_NE(handle, nullptr) << m_status;
    EXPECT_EQ(erase(handle, 96, 192), 0u);
    close(handle);
    platform_faults::reset();
    EXPECT_EQ(read_file(m_sound), frames(4));

    // A crash in between: the name of the old file is no old file.
    for (unsigned nChange = 1, nExit = 86; nExit == 86; ++nChange) {
        SCOPED_TRACE(nChange);
        nExit = static_cast<unsigned>(crash_after([&] {
            FFDHandle const again = open_with(m_sound, frames(4));
            EXPECT_EQ(insert(again, 96, frames(2, 5)), 0u);
            platform_faults::linger_after_removal(3);
            platform_faults::stop_before_change(nChange);
            close(again);
        }));
        platform_faults::linger_after_removal(3);
        handle = open(m_sound);
        ASSERT_NE(handle, nullptr) << m_status;
        EXPECT_EQ(read_all(handle), m_edited);
        close(handle);
        platform_faults::reset();
    }
}

TEST_F(WindowsCloseTest, AReadOnlyFile) {
    write_file(m_sound, frames(4));
    SetFileAttributesA(m_sound.c_str(), FILE_ATTRIBUTE_READONLY);
    EXPECT_EQ(open(m_sound), nullptr);
    EXPECT_EQ(m_status, 29u);
    EXPECT_THAT(listing(), ElementsAre("a.mp3"));

    // Marked while it is open: the copy of a crash in front of the removal can be removed.
    SetFileAttributesA(m_sound.c_str(), FILE_ATTRIBUTE_NORMAL);
    EXPECT_EQ(crash_after([&] {
                  FFDHandle const handle = edited();
                  SetFileAttributesA(m_sound.c_str(), FILE_ATTRIBUTE_READONLY);
                  platform_faults::fail(Call::DeleteFile, 1, ERROR_ACCESS_DENIED, 1000);
                  close(handle, 29);
              }),
              0);
    SetFileAttributesA(m_sound.c_str(), FILE_ATTRIBUTE_NORMAL);
    EXPECT_THAT(listing(), SizeIs(4)); // and the marker
    FFDHandle const handle = open(m_sound);
    ASSERT_NE(handle, nullptr) << m_status;
    EXPECT_THAT(listing(), ElementsAre("a.DIR", "a.mp3"));
    close(handle);
    EXPECT_EQ(read_file(m_sound), m_edited);
}

} // namespace
