#include "Output.h"

#include "Position.h"
#include "System.h"

#include <algorithm>
#include <cstdio>
#include <iomanip>
#include <iostream>
#include <utility>

namespace ffdhost {

void print_document(Json const& document) {
    std::cout << document.dump(2, ' ', false, Json::error_handler_t::replace) << '\n' << std::flush;
}

void print_line(std::string const& name, std::string const& value) {
    std::cout << std::left << std::setw(14) << name << "  " << value << '\n' << std::flush;
}

void print_table(std::vector<std::vector<std::string>> const& rows) {
    std::vector<size_t> widths;
    for (auto const& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    for (auto const& row : rows) {
        for (size_t i = 0; i < row.size(); ++i) {
            std::cout << (i == 0 ? "" : "  ") << std::right
                      << std::setw(static_cast<int>(widths[i])) << row[i];
        }
        std::cout << '\n';
    }
    std::cout << std::flush;
}

void print_warning(std::string const& words) {
    std::cerr << "ffdhost: warning: " << words << std::endl;
}

Json status_json(FFDError status) {
    return {{"status", status}, {"name", status_text(status).name}};
}

Json failure_json(Failure const& failure) {
    return {{"operation", failure.operation()}, {"file", failure.file()},
            {"status", failure.status()},       {"name", status_text(failure.status()).name},
            {"message", failure.what()},        {"advice", failure.advice()}};
}

void print_failure(Failure const& failure) {
    std::cerr << "ffdhost: " << failure.operation() << " failed"
              << (failure.file().empty() ? "" : ": " + failure.file()) << '\n'
              << "  " << status_text(failure.status()).name << " (" << failure.status()
              << "): " << failure.what() << '\n'
              << "  " << failure.advice() << std::endl;
}

std::string bytes_text(uint64_t byteCount) {
    return std::to_string(byteCount) + (byteCount == 1 ? " byte" : " bytes");
}

std::string length_text(uint64_t byteCount, uint32_t bytesPerSecond) {
    return time_text(milliseconds_of(byteCount, bytesPerSecond)) + " (" + bytes_text(byteCount) +
           ")";
}

Json length_json(uint64_t byteCount, uint32_t bytesPerSecond) {
    uint64_t const milliseconds = milliseconds_of(byteCount, bytesPerSecond);
    return {
        {"bytes", byteCount}, {"milliseconds", milliseconds}, {"time", time_text(milliseconds)}};
}

Progress::Progress(std::string label, uint64_t total)
    : m_label(std::move(label)), m_total(total), m_shown(total > 0 && stderr_is_terminal()) {}

Progress::~Progress() {
    if (m_shown && m_done > 0) {
        std::fprintf(stderr, "\r%*s\r", static_cast<int>(m_label.size() + 8), "");
    }
}

void Progress::advance(uint64_t count) {
    m_done += count;
    if (m_shown) {
        std::fprintf(stderr, "\r%s  %3u %%", m_label.c_str(),
                     static_cast<unsigned>(m_done * 100 / m_total));
    }
}

} // namespace ffdhost
