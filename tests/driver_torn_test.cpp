// Files that a crash has torn, that a disk has spoilt or that come from elsewhere: a .DIR file, a
// close marker, a stored status. What can't be whole is set aside or refused and changes nothing;
// what is taken over plays what it names.

#include "testing/driver_folder.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <optional>
#include <random>

namespace fs = std::filesystem;

namespace {

uint32_t get32(std::string const& bytes, size_t at) {
    uint32_t nValue = 0;
    for (size_t nByte = 4; nByte-- > 0;) {
        nValue = nValue << 8 | static_cast<unsigned char>(bytes[at + nByte]);
    }
    return nValue;
}

std::string with_bit(std::string bytes, size_t nBit) {
    bytes[nBit / 8] = static_cast<char>(bytes[nBit / 8] ^ 1 << nBit % 8);
    return bytes;
}

// The entries of a .DIR file; none at all if it can't be a directory.
std::optional<std::vector<Entry>> entries_of(std::string const& file) {
    std::string buffer = file;
    buffer.resize(std::max<size_t>(file.size(), 65536));
    std::vector<Entry> entries;
    for (size_t at = 0;; at += 12) {
        if (at >= buffer.size()) {
            return std::nullopt; // no end
        }
        if (buffer[at] == 0) {
            break;
        }
        if (at + 12 > file.size()) {
            return std::nullopt; // cut
        }
        Entry const entry = {get32(buffer, at), get32(buffer, at + 4), get32(buffer, at + 8)};
        bool const bStatus = entry.nStatus == 1 || entry.nStatus == 3 || entry.nStatus == 11;
        if (!bStatus || entry.nStartpos > entry.nEndpos) {
            return std::nullopt;
        }
        for (Entry const& other : entries) {
            if (entry.nStartpos < std::min(entry.nEndpos, other.nEndpos) &&
                other.nStartpos < std::min(entry.nEndpos, other.nEndpos)) {
                return std::nullopt; // overlap
            }
        }
        entries.push_back(entry);
    }
    return entries;
}

// Fits the highest block to what the file holds behind its first frame.
void recover(std::vector<Entry>& entries, uint32_t nHeld) {
    uint32_t nSum = 0;
    for (Entry const& entry : entries) {
        nSum += entry.nEndpos - entry.nStartpos;
    }
    Entry* pHighest = nullptr;
    for (Entry& entry : entries) {
        bool const bEmpty = entry.nStartpos == entry.nEndpos;
        if (!bEmpty && entry.nStartpos >= nSum) {
            return;
        }
        if (entry.nStatus == 1 && entry.nEndpos == nSum && (pHighest == nullptr || !bEmpty)) {
            pHighest = &entry;
        }
    }
    if (pHighest == nullptr || nSum == nHeld || pHighest->nStartpos > nHeld) {
        return;
    }
    *pHighest =
        pHighest->nStartpos == nHeld ? Entry{3, 0, 0} : Entry{1, pHighest->nStartpos, nHeld};
}

class TornTest : public FolderTest {
protected:
    // Opens a sound file of whole frames beside a .DIR file, expects what the two make up, and
    // takes all that it finds through every edit and the close.
    void expect_opened(std::string const& audio, std::string const& dir) {
        put({{"a.mp3", audio}, {"a.DIR", dir}});
        auto entries = entries_of(dir);
        ++m_nTried;
        m_nAside += !entries;
        FFDHandle const handle = open(m_sound);
        ASSERT_NE(handle, nullptr) << m_status;
        EXPECT_EQ(exists(path("a.DIR.bad")), !entries);
        bool const bNew =
            !entries || entries->empty() || (entries->size() == 1 && entries->front().nEndpos == 0);
        uint32_t const nHeld = static_cast<uint32_t>(audio.size());
        if (bNew) {
            entries = std::vector<Entry>{{1, 0, nHeld}};
        }
        recover(*entries, nHeld);
        uint32_t nPosition = 0;
        uint32_t nNamed = 0;
        bool bUndoable = false;
        for (Entry const& entry : *entries) {
            nNamed += std::min(entry.nEndpos, nHeld) - std::min(entry.nStartpos, nHeld);
            bUndoable = bUndoable || entry.nStatus == 11;
            if (entry.nStatus != 1) {
                continue;
            }
            uint32_t const nBytes = entry.nEndpos - entry.nStartpos;
            if (nBytes != 0 && entry.nStartpos < nHeld) {
                EXPECT_TRUE(same_bytes(read(handle, nPosition, std::min(nBytes, nHeld)),
                                       audio.substr(entry.nStartpos, nBytes)));
            }
            nPosition += nBytes;
        }
        m_nGaps += nNamed != nHeld;
        EXPECT_EQ(length(handle), nPosition);
        EXPECT_EQ(driver().UndoLast(handle), bUndoable ? 0u : 24u);
        EXPECT_EQ(insert(handle, nPosition / 2, frames(1, 3)), 0u);
        EXPECT_EQ(insert(handle, 0, frames(2, 4)), 0u);
        EXPECT_EQ(erase(handle, 96, 96), 0u);
        EXPECT_EQ(driver().UndoLast(handle), 0u);
        EXPECT_TRUE(same_bytes(read(handle, 0, 192), frames(2, 4)));
        close(handle);
        EXPECT_TRUE(same_bytes(read_file(m_sound).substr(0, 192), frames(2, 4)));
        EXPECT_EQ(exists(path("a.DIR")), false);
        if (!entries_of(dir)) {
            EXPECT_EQ(read_file(path("a.DIR.bad")), dir);
        }
    }

    void report(char const* pszWhat) {
        std::cout << m_nTried << " " << pszWhat << " tried, " << m_nAside << " set aside, "
                  << m_nGaps << " with bytes that no entry names\n";
        RecordProperty("tried", static_cast<int>(m_nTried));
    }

    unsigned m_nTried = 0;
    unsigned m_nAside = 0;
    unsigned m_nGaps = 0;
};

TEST_F(TornTest, EveryMixOfTwoDirectories) {
    using Edit = std::function<FFDError(FFDHandle)>;
    Edit const edits[] = {
        [](FFDHandle h) { return insert(h, 60 * 96, frames(1, 1)); },
        [](FFDHandle h) { return insert(h, 90 * 96 + 48, frames(1, 2)); },
        [](FFDHandle h) { return overwrite(h, 70 * 96 + 10, frames(2, 3)); },
        [](FFDHandle h) { return erase(h, 40 * 96, 60 * 96); },
        [](FFDHandle h) { return driver().UndoLast(h); },
    };
    // 160 blocks of one frame each, the last frame first.
    std::vector<Entry> entries;
    for (uint32_t nFrame = 160; nFrame-- > 0;) {
        entries.push_back({1, nFrame * 96, nFrame * 96 + 96});
    }
    std::string old = dir_image(entries);
    std::string sound = frames(160);
    for (Edit const& edit : edits) {
        put({{"a.mp3", sound}, {"a.DIR", old}});
        EXPECT_EQ(crash_after([&] { EXPECT_EQ(edit(open(m_sound)), 0u); }), 0);
        sound = read_file(m_sound);
        std::string const image = read_file(path("a.DIR"));
        std::vector<size_t> pieces; // that differ
        for (size_t at = 0; at < 65536; at += 512) {
            if (image.compare(at, 512, old, at, 512) != 0) {
                pieces.push_back(at);
            }
        }
        ASSERT_TRUE(pieces.size() >= 2 && pieces.size() <= 4) << pieces.size();
        for (unsigned nMix = 0; nMix < 1u << pieces.size() && !HasFailure(); ++nMix) {
            SCOPED_TRACE(nMix);
            std::string mixed = old;
            for (size_t nPiece = 0; nPiece < pieces.size(); ++nPiece) {
                if ((nMix >> nPiece & 1) != 0) {
                    mixed.replace(pieces[nPiece], 512, image, pieces[nPiece], 512);
                }
            }
            expect_opened(sound, mixed);
        }
        // The new one up to any byte, and the old one behind it.
        for (size_t nBytes = pieces.front(); nBytes < pieces.back() + 512 && !HasFailure();
             nBytes += 5) {
            SCOPED_TRACE(nBytes);
            expect_opened(sound, image.substr(0, nBytes) + old.substr(nBytes));
        }
        old = image;
    }
    report("mixed directories");
}

TEST_F(TornTest, EveryLengthEveryBitAndAnythingElse) {
    std::string const audio = frames(30);
    std::vector<Entry> const entries = {{1, 2000, 2880}, {3, 1000, 1500}, {11, 0, 600},
                                        {1, 600, 1000},  {1, 1500, 2000}, {11, 2880, 2880}};
    std::string const image = dir_image(entries);
    for (size_t nBytes = 0; nBytes <= 65536 && !HasFailure(); nBytes += nBytes < 300 ? 1 : 512) {
        SCOPED_TRACE(nBytes);
        expect_opened(audio, image.substr(0, nBytes));
    }
    for (size_t nBit = 0; nBit < size_t{65536} * 8 && !HasFailure();
         nBit += nBit < 700 ? 1 : 32749) {
        SCOPED_TRACE(nBit);
        expect_opened(audio, with_bit(image, nBit));
    }
    report("cut or spoilt directories");

    std::mt19937 random(4711);
    auto const one_of = [&](std::initializer_list<uint32_t> values) {
        return values.begin()[random() % values.size()];
    };
    for (unsigned nRound = 0; nRound < 3000 && !HasFailure(); ++nRound) {
        SCOPED_TRACE(nRound);
        std::vector<Entry> any;
        uint32_t nEnd = 0;
        for (size_t nEntries = random() % 12; nEntries > 0; --nEntries) {
            uint32_t const nStart = nEnd + one_of({0, 0, 0, 1, 96, 4000});
            nEnd = nStart + one_of({0, 1, 95, 96, 500, 1500});
            any.push_back({one_of({1, 1, 1, 1, 3, 11}), nStart, nEnd});
        }
        std::shuffle(any.begin(), any.end(), random);
        if (!any.empty() && random() % 3 == 0) { // something that is wrong, as a rule
            Entry& entry = any[random() % any.size()];
            (random() % 2 == 0 ? entry.nStartpos : entry.nEndpos) =
                one_of({0, 96, 2880, 0x7FFFFFFF, 0xFFFFFFFF});
            entry.nStatus = one_of({1, 3, 11, 0, 2, 5, 9, 257, 0x80000001});
        }
        size_t const nBytes = one_of({65536, 65536, 12, 70, 144, 65537, 131072});
        expect_opened(audio, dir_image(any, nBytes));
    }
    report("directories in all");
    EXPECT_GT(m_nAside, m_nTried / 20);
    EXPECT_LT(m_nAside, m_nTried / 2);
}

TEST_F(TornTest, AMarkerThatIsNotWholeDecidesNothing) {
    std::string const audio = frames(10);
    std::string const dictation = frames(1, 3) + audio;
    // The process ends in front of the removal of the old file, and in front of the rename.
    for (bool const bOldFile : {true, false}) {
        std::string marker;
        for (unsigned nChange = 1; marker.empty() || exists(m_sound) != bOldFile; ++nChange) {
            put({{"a.mp3", audio}});
            ASSERT_EQ(crash_after([&] {
                          FFDHandle const handle = open(m_sound);
                          EXPECT_EQ(insert(handle, 0, frames(1, 3)), 0u);
                          platform_faults::stop_before_change(nChange);
                          close(handle);
                      }),
                      86);
            marker = exists(path("a.CLM")) ? read_file(path("a.CLM")) : "";
        }
        std::string const dir = read_file(path("a.DIR"));
        std::string const temp = path(listing().front());
        auto const expect_kept = [&](std::string const& damaged) {
            ++m_nTried;
            fs::remove(path("a.DIR")); // new files: quicker than to cut old ones
            write_file(path("a.CLM"), damaged);
            write_file(path("a.DIR"), dir);
            FFDHandle const handle = open(m_sound);
            EXPECT_EQ(handle == nullptr, !bOldFile);
            EXPECT_TRUE(same_bytes(read_file(temp), dictation));
            if (bOldFile) {
                EXPECT_TRUE(same_bytes(read_all(handle), dictation));
                EXPECT_TRUE(same_bytes(read_file(m_sound), audio + frames(1, 3)));
                // Leaves the file and its directory alone, as a crash would.
                platform_faults::pretend_free_bytes(0);
                close(handle, 6);
                platform_faults::reset();
            }
            // A file that does not even begin like a marker is somebody's.
            bool const bZeros = damaged.find_first_not_of('\0') == std::string::npos;
            bool const bForeign =
                damaged.size() > marker.size() ||
                (!bZeros && damaged.compare(0, 8, marker, 0, std::min<size_t>(8, damaged.size())));
            EXPECT_EQ(exists(path("a.CLM")), bForeign);
            EXPECT_EQ(exists(path("a.CLM.bad")), !bForeign && !damaged.empty());
            fs::remove(path("a.CLM.bad"));
        };
        for (size_t nBytes = 0; nBytes < marker.size() && !HasFailure(); ++nBytes) {
            SCOPED_TRACE(nBytes);
            expect_kept(marker.substr(0, nBytes));
        }
        for (size_t nBit = 0; nBit < marker.size() * 8 && !HasFailure(); nBit += 5) {
            SCOPED_TRACE(nBit);
            expect_kept(with_bit(marker, nBit));
        }
        for (std::string const& damaged :
             {marker.substr(0, 300) + std::string(marker.size() - 300, '\0'),
              std::string(marker.size(), '\0'), marker + '\0', noise(marker.size())}) {
            expect_kept(damaged);
        }
        write_file(path("a.CLM"), marker);
        expect_dictation(dictation, dictation);
    }
    report("markers");
}

TEST_F(TornTest, AStoredStatusThatIsNotWholeRestoresNothing) {
    FFDHandle const handle = open_with(m_sound, frames(10));
    ASSERT_EQ(insert(handle, 480, frames(1, 3)), 0u);
    ASSERT_EQ(erase(handle, 96, 192), 0u);
    std::string const stored = read_all(handle);
    seek(handle, 100);
    ASSERT_EQ(driver().StoreActualFileStatus(handle), 0u);
    std::string const csf = path(listing().front());
    std::string const whole = read_file(csf);
    ASSERT_EQ(whole.size(), 84u); // five entries
    ASSERT_EQ(insert(handle, 0, frames(1, 4)), 0u);
    std::string const present = read_all(handle);

    auto const put = [&](std::string const& bytes) {
        std::fstream file(csf, std::ios::binary | std::ios::in | std::ios::out);
        file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        file.close();
        fs::resize_file(csf, bytes.size());
    };
    // 29 and nothing changed; or, where the bytes still make sense, a directory that can be used.
    auto const restore = [&](std::string const& damaged) {
        ++m_nTried;
        put(damaged);
        seek(handle, 300);
        FFDError const status = driver().RestoreFileStatus(handle);
        if (status == 0) {
            read(handle, 0, 2000);
            EXPECT_EQ(insert(handle, 0, frames(1, 5)), 0u);
            EXPECT_EQ(erase(handle, 0, 96), 0u);
            EXPECT_EQ(driver().UndoLast(handle), 0u);
            put(whole);
            EXPECT_EQ(driver().RestoreFileStatus(handle), 0u);
            EXPECT_EQ(insert(handle, 0, frames(1, 4)), 0u);
        } else {
            EXPECT_EQ(status, 29u);
            EXPECT_EQ(position(handle), 300u);
        }
        EXPECT_TRUE(same_bytes(read_all(handle), present));
        return status;
    };
    for (size_t nBytes = 0; nBytes < whole.size(); ++nBytes) {
        EXPECT_EQ(restore(whole.substr(0, nBytes)), 29u) << nBytes;
    }
    for (size_t nBit = 0; nBit < whole.size() * 8; ++nBit) {
        size_t const nByte = nBit / 8;
        FFDError const status = restore(with_bit(whole, nBit));
        bool const bEntry = nByte >= 4 && nByte < 64;
        // The count, and in each entry the reserved bytes; the status but for a change to 1 or 3.
        if (nByte < 4 || (bEntry && (nByte - 4) % 12 >= 1 && (nByte - 4) % 12 <= 3) ||
            (bEntry && (nByte - 4) % 12 == 0 && nBit % 8 != 1 && nBit % 8 != 3)) {
            EXPECT_EQ(status, 29u) << nBit;
        }
    }
    EXPECT_EQ(restore(std::string("\x56\x15\0\0", 4) + std::string(65568, '\1')), 29u); // 5462
    put(whole);
    EXPECT_EQ(driver().RestoreFileStatus(handle), 0u);
    EXPECT_EQ(position(handle), 100u);
    EXPECT_TRUE(same_bytes(read_all(handle), stored));
    report("stored statuses");
}

} // namespace
