# What `cmake --install` puts where. The Debian packages take it from there.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Whatever the umask of whoever installs.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
    GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# The driver finds its trace log beside itself, wherever the two are moved together.
# In the build directory too: a path that is
# to be shortened at the installation is filled up with empty elements, which stand for the working
# directory.
set_target_properties(xkivmp3 PROPERTIES BUILD_WITH_INSTALL_RPATH ON
    INSTALL_RPATH "$<$<NOT:$<BOOL:${WIN32}>>:$ORIGIN>")
target_include_directories(xkivmp3 INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

# For a host that loads the driver at run time: the headers alone.
add_library(xkivmp3_host INTERFACE)
set_target_properties(xkivmp3_host PROPERTIES EXPORT_NAME host)
target_include_directories(xkivmp3_host INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_libraries(xkivmp3_host INTERFACE ${CMAKE_DL_LIBS})

install(TARGETS xkivmp3 xkivlog xkivmp3_host EXPORT xkivmp3)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/include/ TYPE INCLUDE)
install(EXPORT xkivmp3 NAMESPACE xkivmp3:: FILE xkivmp3-targets.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/xkivmp3)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/xkivmp3-config.cmake.in
    ${CMAKE_BINARY_DIR}/xkivmp3-config.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/xkivmp3)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/xkivmp3-config-version.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/xkivmp3-config.cmake
    ${CMAKE_BINARY_DIR}/xkivmp3-config-version.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/xkivmp3)
file(RELATIVE_PATH prefix_of_pc /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${CMAKE_CURRENT_LIST_DIR}/xkivmp3.pc.in ${CMAKE_BINARY_DIR}/xkivmp3.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/xkivmp3.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES CHANGELOG.md SECURITY.md TYPE DOC)
install(DIRECTORY docs TYPE DOC PATTERN Doxyfile EXCLUDE PATTERN reference.md EXCLUDE)
install(DIRECTORY examples TYPE DOC PATTERN CMakeLists.txt EXCLUDE)
install(FILES LICENSE TYPE DOC RENAME copyright)

if(TARGET ffdhost)
    install(TARGETS ffdhost)
endif()
if(TARGET ffdhost AND NOT WIN32)
    configure_file(${CMAKE_SOURCE_DIR}/cli/ffdhost.1.in ${CMAKE_BINARY_DIR}/ffdhost.1 @ONLY)
    install(FILES ${CMAKE_BINARY_DIR}/ffdhost.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
    install(FILES ${CMAKE_SOURCE_DIR}/cli/completion/ffdhost.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME ffdhost)
    install(FILES ${CMAKE_SOURCE_DIR}/cli/completion/_ffdhost
        DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
endif()
