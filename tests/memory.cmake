# The driver over the platform layer in memory: no disk, one process, a clock of its own.
get_target_property(driver_sources xkivmp3 SOURCES)
list(FILTER driver_sources INCLUDE REGEX "\\.cpp$")
list(TRANSFORM driver_sources PREPEND ${CMAKE_SOURCE_DIR}/MCI/)
add_library(xkivmp3_memory STATIC EXCLUDE_FROM_ALL
    ${driver_sources}
    ${CMAKE_SOURCE_DIR}/platform/posix_errors.cpp
    ${CMAKE_SOURCE_DIR}/platform/posix_paths.cpp
    ${CMAKE_SOURCE_DIR}/platform/memory_platform.cpp)
target_link_libraries(xkivmp3_memory PUBLIC kiv_common xkivlog)
target_link_options(xkivmp3_memory INTERFACE -Wl,--wrap=time)
