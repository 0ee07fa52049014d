// Calls the library's entry point at load and at unload, where the loader of the system does not.
//
// It is done by an object rather than by constructor and destructor attributes: at the end of a
// process those of an object run before the other static objects of the library, which the
// entry point may use, and not after them. It must stand behind the object files of the library in
// the link, so that those objects exist at attach.
#include "platform/platform.h"

#if !defined(_WIN32)

namespace {

struct Attachment {
    Attachment() { DllMain(nullptr, DLL_PROCESS_ATTACH, nullptr); }
    ~Attachment() { DllMain(nullptr, DLL_PROCESS_DETACH, nullptr); }
    Attachment(Attachment const&) = delete;
    Attachment& operator=(Attachment const&) = delete;
};

Attachment const g_attachment;

} // namespace

#endif
