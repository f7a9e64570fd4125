# Common settings for every target of the project.
set(QUILL_INCLUDE_DIR ${PROJECT_SOURCE_DIR}/include)

function(quill_defaults target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  if(QUILL_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

if(QUILL_SANITIZE)
  add_compile_options(-fsanitize=${QUILL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${QUILL_SANITIZE})
endif()

# quill_library(NAME DIRS... ) builds a shared library from every .cpp below
# the given directories, with the public include root.
function(quill_library name export_macro)
  set(sources)
  foreach(dir IN LISTS ARGN)
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
  install(TARGETS ${name} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endfunction()

# Fuzz builds instrument every library for coverage; the fuzz programs add
# the fuzzer main themselves (fuzz/CMakeLists.txt).
if(QUILL_BUILD_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
