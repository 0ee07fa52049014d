#include "Status.h"

#include <cctype>
#include <system_error>
#include <utility>

namespace ffdhost {

std::string system_words(int error) {
    std::string words = std::generic_category().message(error);
    words[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(words[0])));
    return words;
}

StatusText status_text(FFDError status) {
    ffd::StatusText const text = ffd::describe(status);
    // The arguments are those of the command line.
    return {text.szName, text.szMeaning,
            status == FFD_INVALID_PARAMETER ? "See 'ffdhost --help'." : text.szAdvice};
}

std::string status_suffix(FFDError status) {
    return " (" + std::string(status_text(status).name) + ", " + std::to_string(status) + ")";
}

Failure::Failure(std::string operation, std::string file, FFDError status)
    : Failure(std::move(operation), std::move(file), status,
              std::string(status_text(status).meaning)) {}

Failure::Failure(std::string operation, std::string file, FFDError status, std::string const& words,
                 std::string advice)
    : std::runtime_error(words), m_operation(std::move(operation)), m_file(std::move(file)),
      m_status(status), m_advice(std::move(advice)) {
    if (m_advice.empty()) {
        m_advice = status_text(status).advice;
    }
}

} // namespace ffdhost
