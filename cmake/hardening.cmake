# Compilers and linkers find and stop some faults at run time; everything that is built here is built
# so, and tests/hardening_test.py reads it off the files that ship.
include(CheckPIESupported)
check_pie_supported()

add_compile_options(-fstack-protector-strong)
add_link_options(-fstack-protector-strong)
# Checked copies of the C library's functions want an optimised build, and get in the way of the
# sanitizers, which check the same calls.
string(APPEND CMAKE_C_FLAGS_RELEASE " -D_FORTIFY_SOURCE=2")
string(APPEND CMAKE_CXX_FLAGS_RELEASE " -D_FORTIFY_SOURCE=2")
if(NOT CMAKE_CXX_FLAGS MATCHES sanitize)
    string(APPEND CMAKE_C_FLAGS_RELWITHDEBINFO " -D_FORTIFY_SOURCE=2")
    string(APPEND CMAKE_CXX_FLAGS_RELWITHDEBINFO " -D_FORTIFY_SOURCE=2")
endif()
if(WIN32)
    add_link_options(-Wl,--dynamicbase -Wl,--nxcompat -Wl,--high-entropy-va)
else()
    add_compile_options(-fstack-clash-protection)
    if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
        add_compile_options(-fcf-protection)
    endif()
    add_link_options(-Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
endif()
