#include <dlfcn.h>
#include <gtest/gtest.h>

namespace {

TEST(PlatformLoader, AttachesLastAndDetachesFirst) {
    char const* const path = KIV_BUILD_DIR "/libplatform_loader_probe.so";
    for (int load = 0; load < 2; ++load) {
        void* const library = dlopen(path, RTLD_NOW);
        ASSERT_NE(library, nullptr) << dlerror();
        auto const early = reinterpret_cast<char const* (*)()>(dlsym(library, "early"));
        EXPECT_STREQ(early(), "made attach ");
        char trace[100] = "";
        *static_cast<char**>(dlsym(library, "g_pTrace")) = trace;
        dlclose(library);
        EXPECT_STREQ(trace, "detach gone ");
        EXPECT_EQ(dlopen(path, RTLD_NOW | RTLD_NOLOAD), nullptr);
    }
}

} // namespace
