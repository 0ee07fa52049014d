#include "support.h"

#include "Diagnosis.h"

namespace ffdhost {

Outcome run_check(Driver const& driver, std::string const& file, bool json) {
    Diagnosis const diagnosis = diagnose(driver, file);
    if (!json) {
        print_diagnosis(diagnosis);
    }
    bool const sound = !diagnosis.needs_attention();
    Json document = {{"ok", sound}, {"file", file}};
    document.update(diagnosis_json(diagnosis));
    return {document, sound ? 0 : kExitFailed};
}

} // namespace ffdhost
