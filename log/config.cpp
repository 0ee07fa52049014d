#include "log/config.h"

#include "log/os.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace xkivlog {

int gate = static_cast<int>(Level::Value);

namespace {

constexpr char kVariable[] = "XKIVLOG";
// An initialisation file is read up to here. The settings stand in its first lines or not at all.
constexpr size_t kIniLimit = 65536;

// No state below has a constructor or a destructor that runs: calls come before the first and, from
// threads that are still at work when the process ends, after the last.
os::Mutex configuring;
constinit std::atomic<bool> environmentRead{false};
constinit std::atomic<int> current{-1};
// Under the mutex:
bool environmentDecides = false;
char iniPath[kMaxPath];
os::FileStamp iniStamp;
char iniText[kIniLimit];

void set_gate(Level level) {
    __atomic_store_n(&gate, static_cast<int>(level), __ATOMIC_RELEASE);
}

// From the first one on the number of the descriptor stays the same and is never closed: a thread
// in the middle of a line must not find a sound file of the host under it.
bool take_destination(int descriptor) {
    if (descriptor < 0) {
        return false;
    }
    if (int const kept = current.load(); kept >= 0) {
        return os::replace(kept, descriptor);
    }
    current.store(descriptor);
    return true;
}

// False if the place named cannot be written to. The log is off then.
bool apply(Level level, char const* path) {
    if (level == Level::Off) {
        set_gate(Level::Off);
        return true;
    }
    bool const taken =
        take_destination(*path != '\0' ? os::open_for_append(path) : os::open_standard_error());
    set_gate(taken ? level : Level::Off);
    return taken;
}

bool copy_path(std::string_view path, char (&copy)[kMaxPath]) {
    if (path.size() >= kMaxPath || path.find('\0') != std::string_view::npos) {
        return false;
    }
    *std::copy(path.begin(), path.end(), copy) = '\0';
    return true;
}

void complain(char const* what, char const* value, char const* why) {
    char line[512];
    int const length =
        std::snprintf(line, sizeof line, "xkivlog: in %s: %s \"%.300s\"%s%.100s; the log is off\n",
                      kVariable, what, value, *why != '\0' ? ": " : "", why);
    os::complain(line, static_cast<size_t>(length));
}

void read_environment() {
    char const* text = os::environment(kVariable);
    if (text == nullptr || *text == '\0') {
        set_gate(Level::Off); // until an initialisation file says otherwise
        return;
    }
    environmentDecides = true;
    auto const settings = parse_environment(text);
    if (!settings) {
        set_gate(Level::Off);
        complain("no such level in", text, "");
        return;
    }
    char path[kMaxPath];
    if (!copy_path(settings->path, path)) {
        set_gate(Level::Off);
        complain("path too long in", text, "");
    } else if (!apply(settings->level, path)) {
        complain("cannot write to", path, os::error_text());
    }
}

void read_ini() {
    size_t const length = os::read_start(iniPath, iniText, kIniLimit);
    std::string_view text(iniText, length);
    if (length == kIniLimit) { // the last line may be cut: half a path is a wrong path
        text = text.substr(0, text.rfind('\n') + 1);
    }
    Settings const settings = parse_ini(text);
    char path[kMaxPath];
    if (settings.path.empty() || !copy_path(settings.path, path)) {
        set_gate(Level::Off);
    } else {
        apply(settings.level, path);
    }
}

// A child forked while another thread holds the mutex would wait for ever in its next LogInit. Done
// at load, since it has to be in force before the mutex is taken for the first time; calls that
// come still earlier do without.
[[maybe_unused]] bool const kForkCovered = [] {
    os::around_fork([] { configuring.lock(); }, [] { configuring.unlock(); },
                    [] { configuring.unlock(); });
    return true;
}();

} // namespace

void ensure_configured() {
    if (environmentRead.load(std::memory_order_acquire)) {
        return;
    }
    std::scoped_lock const lock(configuring);
    if (environmentRead.load(std::memory_order_relaxed)) {
        return;
    }
    read_environment();
    environmentRead.store(true, std::memory_order_release);
}

void use_ini(char const* path) {
    if (path == nullptr || *path == '\0') {
        return;
    }
    std::scoped_lock const lock(configuring);
    if (environmentDecides) {
        return;
    }
    char asked[kMaxPath];
    if (!copy_path({path, strnlen(path, kMaxPath)}, asked)) {
        return;
    }
    os::to_system_separators(asked);
    os::FileStamp const stamp = os::stamp_of(asked);
    if (stamp == iniStamp && std::strcmp(asked, iniPath) == 0) {
        return;
    }
    std::memcpy(iniPath, asked, std::strlen(asked) + 1);
    iniStamp = stamp;
    read_ini();
}

void give_up() {
    set_gate(Level::Off);
}

int destination() {
    return current.load(std::memory_order_acquire);
}

} // namespace xkivlog
