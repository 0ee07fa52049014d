// A log library with the seven operations and nothing else: writes the kind of each call as a line
// to the file that the environment variable STANDIN names, and leaves a number of its own in errno.
#include "log/xkivlog.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

void note(char const* kind) {
    if (FILE* const file = fopen(getenv("STANDIN"), "a")) {
        fprintf(file, "%s\n", kind);
        fclose(file);
    }
    errno = 12345;
}

} // namespace

extern "C" {
void LogInit(char const*, char const*, int, char const*) {
    note("INIT");
}
void LogEntry(char const*, char const*, int, char const*) {
    note("ENTRY");
}
void LogParam(char const*, char const*, int, char const*, char const*, ...) {
    note("PARAM");
}
void LogWarning(char const*, char const*, int, char const*, char const*) {
    note("WARNING");
}
void LogInfo(char const*, char const*, int, char const*) {
    note("INFO");
}
void LogValue(char const*, char const*, int, char const*, char const*, ...) {
    note("VALUE");
}
void LogError(char const*, char const*, int, uint32_t, char const*) {
    note("ERROR");
}
}
