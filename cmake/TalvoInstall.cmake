# Headers, library, CMake package and pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS tln_core EXPORT talvoTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# Names and debug information go to a file of their own, in the folder .debug beside the library: its .gnu_debuglink
# leads debuggers there, and ldconfig does not take it for a library.
if(BUILD_SHARED_LIBS AND CMAKE_OBJCOPY)
  install(CODE "
    set(folder \"${CMAKE_INSTALL_LIBDIR}\")
    cmake_path(ABSOLUTE_PATH folder BASE_DIRECTORY \"\${CMAKE_INSTALL_PREFIX}\")
    string(PREPEND folder \"\$ENV{DESTDIR}\")
    set(library \"\${folder}/$<TARGET_FILE_NAME:tln_core>\")
    set(names \"\${folder}/.debug/$<TARGET_FILE_NAME:tln_core>.debug\")
    file(MAKE_DIRECTORY \"\${folder}/.debug\")
    execute_process(COMMAND \"${CMAKE_OBJCOPY}\" --only-keep-debug \${library} \${names} COMMAND_ERROR_IS_FATAL ANY)
    execute_process(COMMAND \"${CMAKE_OBJCOPY}\" --strip-unneeded --add-gnu-debuglink=\${names} \${library}
                    COMMAND_ERROR_IS_FATAL ANY)")
endif()
install(EXPORT talvoTargets NAMESPACE talvo:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/talvo)

# The public headers are those that talvo/talvo.h lists, without those of what is off; no other is installed.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/talvo/talvo.h)
file(STRINGS ${PROJECT_SOURCE_DIR}/talvo/talvo.h TALVO_PUBLIC_HEADERS REGEX "^#include \"")
list(TRANSFORM TALVO_PUBLIC_HEADERS REPLACE "^#include \"(.*)\"$" "\\1")
if(NOT TALVO_WITH_BLAS)
  list(FILTER TALVO_PUBLIC_HEADERS EXCLUDE REGEX "^talvo/kernel/sgemm")
endif()
if(NOT TALVO_WITH_IMAGE)
  list(FILTER TALVO_PUBLIC_HEADERS EXCLUDE REGEX "^talvo/image/")
endif()
if(NOT TALVO_WITH_TLMODEL1)
  list(FILTER TALVO_PUBLIC_HEADERS EXCLUDE REGEX "^talvo/serialization/tlmodel1")
endif()
foreach(header talvo/talvo.h ${TALVO_PUBLIC_HEADERS})
  get_filename_component(folder ${header} DIRECTORY)
  foreach(root ${TALVO_INCLUDE_DIRS})
    if(EXISTS ${root}/${header})
      install(FILES ${root}/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder})
    endif()
  endforeach()
endforeach()

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/talvoConfig.cmake.in ${PROJECT_BINARY_DIR}/talvoConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/talvo)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/talvoConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/talvoConfig.cmake ${PROJECT_BINARY_DIR}/talvoConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/talvo)

# Relative, so that the package works under any prefix it is installed or moved to.
file(RELATIVE_PATH TALVO_PREFIX_FROM_PC ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
if(NOT BUILD_SHARED_LIBS)
  list(JOIN BLAS_LIBRARIES " " TALVO_STATIC_LIBRARIES)  # a static library brings its own needs along
  string(APPEND TALVO_STATIC_LIBRARIES " -lstdc++ -lm")  # which a C compiler does not add
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/tln_core.pc.in ${PROJECT_BINARY_DIR}/tln_core.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tln_core.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
