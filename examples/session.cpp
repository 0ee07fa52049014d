// session DRIVER SOUND CLIP: the session of session.c, in C++20 on ffd.hpp:
//
//     g++ -std=c++20 -I include -o session examples/session.cpp
//     ./session build/libxkivmp3.so letter.mp3 addition.mp3
#include "ffd.hpp"

#include <cstdio>
#include <exception>
#include <vector>

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: session DRIVER SOUND CLIP\n");
        return 2;
    }
    char const* file = argv[1];
    try {
        ffd::Driver const driver(argv[1]);

        file = argv[3];
        ffd::File clip(driver, file, ffd::Access::Read);
        std::vector<std::byte> audio(clip.length()); // without the tags
        audio.resize(clip.read(audio));
        clip.close();

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
