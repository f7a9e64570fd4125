# Common settings for every target of the project.
set(QUILL_INCLUDE_DIR ${PROJECT_SOURCE_DIR}/include)

function(quill_defaults target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  # g++ 12 reports -Wrestrict inside libstdc++'s own string concatenation at
  # -O2 and above (a known false positive of that release); it says nothing
  # about our code.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(${target} PRIVATE -Wno-restrict)
  endif()
  # clang checks the locking annotations (ferrocore/ThreadAnnotations.h) in
  # every layer; under QUILL_WERROR a violation fails the build like any other
  # warning.
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
  if(QUILL_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

if(QUILL_SANITIZE)
  add_compile_options(-fsanitize=${QUILL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${QUILL_SANITIZE})
endif()

# Where `cmake --install` puts the frameworks (docs/bundles.md): the
# directory named "Frameworks" that holds Corvane.framework. Relative to the
# install prefix unless absolute.
set(QUILL_INSTALL_FRAMEWORKSDIR "${CMAKE_INSTALL_LIBDIR}/corvane/Frameworks" CACHE STRING
    "Install directory of Corvane.framework (must end in Frameworks)")

# quill_full_install_dir(VAR DIR) sets VAR to DIR made absolute against the
# configured install prefix (for computing relative paths between install
# directories).
function(quill_full_install_dir var dir)
  if(IS_ABSOLUTE "${dir}")
    set(${var} "${dir}" PARENT_SCOPE)
  else()
    set(${var} "${CMAKE_INSTALL_PREFIX}/${dir}" PARENT_SCOPE)
  endif()
endfunction()

# quill_library(NAME EXPORT_MACRO DIRS... [DESTINATION DIR]) builds a shared
# library from every .cpp below the given directories, with the public include
# root, and installs it to DIR (default: the library directory). Installed
# libraries find their siblings in the library directory through their RPATH.
function(quill_library name export_macro)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "DESTINATION" "")
  if(NOT arg_DESTINATION)
    set(arg_DESTINATION ${CMAKE_INSTALL_LIBDIR})
  endif()
  quill_full_install_dir(full_destination "${arg_DESTINATION}")
  quill_full_install_dir(full_libdir "${CMAKE_INSTALL_LIBDIR}")
  file(RELATIVE_PATH to_libdir "${full_destination}" "${full_libdir}")
  set(sources)
  foreach(dir IN LISTS arg_UNPARSED_ARGUMENTS)
    file(GLOB_RECURSE found CONFIGURE_DEPENDS ${dir}/*.cpp)
    list(APPEND sources ${found})
  endforeach()
  add_library(${name} SHARED ${sources})
  target_include_directories(${name}
    PUBLIC $<BUILD_INTERFACE:${QUILL_INCLUDE_DIR}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
    PRIVATE ${PROJECT_SOURCE_DIR})
  target_compile_definitions(${name} PRIVATE ${export_macro}_BUILDING=1)
  set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  quill_defaults(${name})
  # $ORIGIN is the directory the loader found the library in: the library
  # directory when loaded through its link there, else the destination.
  if(to_libdir STREQUAL "")
    set_target_properties(${name} PROPERTIES INSTALL_RPATH "$ORIGIN")
  else()
    set_target_properties(${name} PROPERTIES INSTALL_RPATH "$ORIGIN;$ORIGIN/${to_libdir}")
  endif()
  install(TARGETS ${name} LIBRARY DESTINATION ${arg_DESTINATION})
endfunction()

# Fuzz builds instrument every library for coverage; the fuzz programs add
# the fuzzer main themselves (fuzz/CMakeLists.txt).
if(QUILL_BUILD_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# Where `cmake --install` puts the helper programs that the library runs
# itself (the mount adapter, docs/storage.md). Relative to the install prefix
# unless absolute. The library's default mount and unmount commands are fixed
# to this directory under the configured prefix when it is built.
set(QUILL_INSTALL_HELPERDIR "${CMAKE_INSTALL_LIBEXECDIR}/quillcore" CACHE STRING
    "Install directory of the helper programs the library runs")
quill_full_install_dir(QUILL_FULL_HELPERDIR "${QUILL_INSTALL_HELPERDIR}")
