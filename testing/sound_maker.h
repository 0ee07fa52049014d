// MP3 data of which no byte is like its neighbours, and no part like another.
#pragma once

#include <cstddef>
#include <string>

// Whole frames of 96 bytes: MPEG 2 Layer III, mono, 24000 Hz, 32 kbit/s (4000 bytes per second).
// The payload of frame n follows from n and the seed; it holds no 0xFF.
std::string frames(unsigned nCount, unsigned nSeed = 0);

// Any bytes without 0xFF, so that no frame header is among them.
std::string noise(size_t nBytes, unsigned nSeed = 0);

// 1000 bytes of audio: ten frames with 40 bytes of noise in front of the last.
std::string thousand_bytes();

// An ID3v2.3 tag of so many bytes in all (at least 10), and an ID3v1 tag, 128 bytes.
std::string id3v2_tag(size_t nBytes);
std::string id3v1_tag();
