// session DRIVER SOUND CLIP: the session of session.c, in C++20 on ffd.hpp:
//
//     g++ -std=c++20 -I include -o session examples/session.cpp
//     ./session build/libxkivmp3.so letter.mp3 addition.mp3
#include "ffd.hpp"

#include <array>
#include <cstdio>
#include <exception>
#include <fstream>
#include <span>
#include <stdexcept>
#include <vector>

// The frames of a stream that comes in pieces, without its tags and info frame.
static std::vector<std::byte> frames_of(char const* path) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream) {
        throw std::runtime_error("cannot be read");
    }
    std::vector<std::byte> audio;
    auto const keep = [&](FFDFrame const& frame) {
        if (!frame.bInfo) {
            auto const bytes = std::as_bytes(std::span(frame.pBytes, frame.dwLength));
            audio.insert(audio.end(), bytes.begin(), bytes.end());
        }
    };
    ffd::FrameReader reader;
    std::array<char, 4096> piece;
    do {
        stream.read(piece.data(), piece.size());
        auto const count = static_cast<size_t>(stream.gcount());
        reader.put(std::as_bytes(std::span(piece).first(count)), keep);
    } while (stream);
    reader.end(keep);
    return audio;
}

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: session DRIVER SOUND CLIP\n");
        return 2;
    }
    char const* file = argv[1];
    try {
        ffd::Driver const driver(argv[1]);

        file = argv[3];
        std::vector<std::byte> const audio = frames_of(file);

        file = argv[2];
        ffd::File sound(driver, file, ffd::Access::ReadWrite);
        uint32_t const second = sound.format().bytesPerSecond;
        std::printf("opened   %u bytes\n", sound.length());
        sound.seek(sound.borders(second).before);
        sound.insert(audio);
        std::printf("inserted %u bytes\n", sound.length());
        uint32_t const position = sound.position();
        sound.erase(sound.borders(position + 2 * second).before - position);
        std::printf("deleted  %u bytes\n", sound.length());
        sound.undo();
        std::printf("undone   %u bytes\n", sound.length());
        sound.close();
    } catch (std::exception const& error) {
        std::fprintf(stderr, "%s: %s\n", file, error.what());
        return 1;
    }
}
