#include "EachFile.h"

#include "console/Position.h"
#include "support/support.h"

#include <algorithm>
#include <exception>
#include <iostream>
#include <new>
#include <utility>

namespace ffdhost {

namespace {

namespace fs = std::filesystem;

class EachFile {
public:
    EachFile(std::string const& command, bool json,
             std::function<Outcome(std::string const&)> const& one)
        : m_json(json), m_one(one), m_document{{"command", command},
                                               {"ok", true},
                                               {"files", Json::array()},
                                               {"summary", nullptr}} {}

    Outcome run(std::vector<std::string> const& names);

private:
    void add(std::string const& name);
    void look_at(std::string const& file);
    void fail(std::string const& file);
    void sum_up();
    void print_summary() const;

    bool const m_json;
    std::function<Outcome(std::string const&)> const& m_one;
    Json m_document;
    bool m_isMany = false;
    int m_exitCode = 0;
};

Outcome EachFile::run(std::vector<std::string> const& names) {
    m_isMany = names.size() > 1;
    for (std::string const& name : names) {
        add(name);
    }
    sum_up();
    if (m_isMany && !m_json) {
        print_summary();
    }
    m_document["ok"] = m_exitCode == 0;
    return {std::move(m_document), m_exitCode};
}

void EachFile::add(std::string const& name) {
    std::error_code error;
    if (!fs::is_directory(name, error)) {
        return look_at(name);
    }
    m_isMany = true;
    std::vector<std::string> files;
    try {
        files = sound_files_in(name);
    } catch (std::exception const&) {
        return fail(name);
    }
    for (std::string const& file : files) {
        look_at(file);
    }
}

void EachFile::look_at(std::string const& file) {
    try {
        Outcome outcome = m_one(file);
        m_exitCode = std::max(m_exitCode, outcome.exitCode);
        m_document["files"].push_back(std::move(outcome.document));
        if (m_isMany && !m_json) {
            std::cout << '\n';
        }
    } catch (std::exception const&) {
        fail(file);
    }
}

void EachFile::fail(std::string const& file) {
    Failure const failure = current_failure(file);
    m_exitCode = kExitFailed;
    m_document["files"].push_back(
        {{"ok", false}, {"file", file}, {"failure", failure_json(failure)}});
    if (!m_json) {
        print_failure(failure);
    }
}

void EachFile::sum_up() {
    uint64_t good = 0;
    uint64_t failed = 0;
    uint64_t milliseconds = 0;
    Json const& files = m_document["files"];
    for (Json const& file : files) {
        good += file["ok"].get<bool>() ? 1 : 0;
        failed += file.contains("failure") ? 1 : 0;
        if (file.contains("dictation")) {
            milliseconds += file["dictation"]["milliseconds"].get<uint64_t>();
        }
    }
    m_document["summary"] = {{"files", files.size()},
                             {"good", good},
                             {"attention", files.size() - good - failed},
                             {"failed", failed}};
    if (m_document["command"] == "info") {
        m_document["summary"]["milliseconds"] = milliseconds;
    }
}

void EachFile::print_summary() const {
    Json const& summary = m_document["summary"];
    auto const number = [&](char const* name) { return summary[name].get<uint64_t>(); };
    std::string text = std::to_string(number("files"));
    char const* separator = ": ";
    for (auto const& [name, words] :
         {std::pair("good", " good"), {"attention", " to look after"}, {"failed", " failed"}}) {
        if (number(name) > 0) {
            text += separator + std::to_string(number(name)) + words;
            separator = ", ";
        }
    }
    print_line("Files", text);
    if (summary.contains("milliseconds")) {
        print_line("Dictations", time_text(number("milliseconds")) + " in all");
    }
    for (Json const& file : m_document["files"]) {
        if (!file["ok"].get<bool>()) {
            bool const failed = file.contains("failure");
            Json const& words = failed ? file["failure"]["message"] : file["verdict"]["text"];
            print_line(failed ? "Failed" : "Attention",
                       file["file"].get<std::string>() + ": " + words.get<std::string>());
        }
    }
}

} // namespace

Failure current_failure(std::string const& file) {
    try {
        throw;
    } catch (Failure const& failure) {
        return failure.file().empty() ? Failure(failure.operation(), file, failure.status(),
                                                failure.what(), failure.advice())
                                      : failure;
    } catch (std::bad_alloc const&) {
        return {"run", file, FFD_ERROR_OUTOFMEMORY, "no memory"};
    } catch (std::exception const& error) {
        return {"run", file, FFD_INTERNAL_ERROR, error.what()};
    }
}

Outcome run_each(std::string const& command, std::vector<std::string> const& names, bool json,
                 std::function<Outcome(std::string const&)> const& one) {
    return EachFile(command, json, one).run(names);
}

} // namespace ffdhost
