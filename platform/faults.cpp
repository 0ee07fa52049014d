// The rules and counts of the fault seam. Compiled only into the test build.
#include "platform/fault_seam.h"

#include <array>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <optional>

namespace platform_faults {
namespace {

constexpr int EXIT_CODE_OF_A_STOP = 86;
constexpr size_t KINDS = static_cast<size_t>(Call::Any);

struct Rule {
    enum class Effect { Fail, Halve } effect;
    Call call;
    unsigned nth;
    unsigned times;
    DWORD dwError;
    unsigned seen;
};

struct State {
    std::array<Rule, 64> rules{};
    size_t ruleCount = 0;
    std::array<unsigned, KINDS> counts{};
    unsigned changes = 0;
    unsigned changesUntilStop = 0; // 0: no stop is set
    std::optional<uint64_t> pretendedFreeBytes;
    std::optional<bool> encryptionWorks; // nothing: nothing is pretended
    unsigned lingers = 0;
};

std::mutex g_mutex;
State g_state;
std::array<std::atomic<int>, 3> g_tallies{};

void (*g_end)() = [] { std::_Exit(EXIT_CODE_OF_A_STOP); };

// What the present call of this thread is to do.
thread_local bool t_halves = false;
thread_local DWORD t_halvesError = NO_ERROR;

void add_rule(Rule const& rule) {
    std::lock_guard const lock(g_mutex);
    // A forgotten rule would make a test pass that tests nothing.
    if (g_state.ruleCount == g_state.rules.size() || rule.nth == 0) {
        std::abort();
    }
    g_state.rules[g_state.ruleCount++] = rule;
}

bool is_transfer(Call call) {
    return call == Call::ReadFile || call == Call::WriteFile || call == Call::CopyBytes;
}

// Counts the call for the rule and says whether the rule applies.
bool applies(Rule& rule, Call call) {
    if (rule.call != call && rule.call != Call::Any) {
        return false;
    }
    if (rule.effect == Rule::Effect::Halve && !is_transfer(call)) {
        return false;
    }
    ++rule.seen;
    return rule.seen >= rule.nth && rule.seen - rule.nth < rule.times;
}

unsigned tally(Tally which) {
    return static_cast<unsigned>(g_tallies[static_cast<size_t>(which)].load());
}

} // namespace

void reset() {
    std::lock_guard const lock(g_mutex);
    g_state = State{};
}

unsigned count(Call call) {
    std::lock_guard const lock(g_mutex);
    if (call != Call::Any) {
        return g_state.counts[static_cast<size_t>(call)];
    }
    unsigned sum = 0;
    for (unsigned const one : g_state.counts) {
        sum += one;
    }
    return sum;
}

void fail(Call call, unsigned nth, DWORD dwError, unsigned times) {
    add_rule({Rule::Effect::Fail, call, nth, times, dwError, 0});
}

void halve(Call call, unsigned nth, DWORD dwError) {
    add_rule({Rule::Effect::Halve, call, nth, 1, dwError, 0});
}

void stop_before_change(unsigned nth) {
    std::lock_guard const lock(g_mutex);
    g_state.changesUntilStop = nth;
}

void set_end_of_process(void (*end)()) {
    g_end = end;
}

unsigned changes() {
    std::lock_guard const lock(g_mutex);
    return g_state.changes;
}

void pretend_free_bytes(uint64_t ullFreeBytes) {
    std::lock_guard const lock(g_mutex);
    g_state.pretendedFreeBytes = ullFreeBytes;
}

unsigned open_handles() {
    return tally(Tally::Handles);
}

unsigned heap_blocks() {
    return tally(Tally::HeapBlocks);
}

unsigned mapped_views() {
    return tally(Tally::Views);
}

bool enter(Call call) {
    std::lock_guard const lock(g_mutex);
    ++g_state.counts[static_cast<size_t>(call)];
    t_halves = false;
    t_halvesError = NO_ERROR;
    bool fails = false;
    for (size_t i = 0; i < g_state.ruleCount; ++i) {
        Rule& rule = g_state.rules[i];
        if (!applies(rule, call)) {
            continue;
        }
        if (rule.effect == Rule::Effect::Fail) {
            fails = true;
            SetLastError(rule.dwError);
        } else {
            t_halves = true;
            t_halvesError = rule.dwError;
        }
    }
    return fails;
}

DWORD halved(DWORD dwBytesAsked) {
    return t_halves ? dwBytesAsked / 2 : dwBytesAsked;
}

DWORD halved_error() {
    return t_halvesError;
}

void before_change() {
    std::unique_lock lock(g_mutex);
    if (g_state.changesUntilStop == 1) {
        g_state.changesUntilStop = 0;
        lock.unlock();
        g_end();
    }
    if (g_state.changesUntilStop != 0) {
        --g_state.changesUntilStop;
    }
    ++g_state.changes;
}

uint64_t free_bytes(uint64_t ullTrueFreeBytes) {
    std::lock_guard const lock(g_mutex);
    return g_state.pretendedFreeBytes.value_or(ullTrueFreeBytes);
}

void pretend_encryption(bool bWorks) {
    std::lock_guard const lock(g_mutex);
    g_state.encryptionWorks = bWorks;
}

std::optional<bool> encryption_works() {
    std::lock_guard const lock(g_mutex);
    return g_state.encryptionWorks;
}

void linger_after_removal(unsigned nMeetings) {
    std::lock_guard const lock(g_mutex);
    g_state.lingers = nMeetings;
}

unsigned lingers() {
    std::lock_guard const lock(g_mutex);
    return g_state.lingers;
}

void add_to(Tally which, int iDifference) {
    g_tallies[static_cast<size_t>(which)] += iDifference;
}

} // namespace platform_faults
