# What every target of ours is built with, and the shape of a folder.

add_library(vok_options INTERFACE)
target_include_directories(vok_options INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(vok_options INTERFACE -Wall -Wextra
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety -Wthread-safety-beta>)
target_compile_definitions(vok_options INTERFACE
  _FILE_OFFSET_BITS=64  # sizes of images, also where long has 4 bytes
  VOK_RPC_TIMEOUT_MS=${VOK_RPC_TIMEOUT_MS})
target_link_libraries(vok_options INTERFACE Threads::Threads)

# Global, so that the generated code is cut as well: half of it serves the peers' sides.
add_compile_options($<$<CONFIG:MinSizeRel>:-ffunction-sections> $<$<CONFIG:MinSizeRel>:-fdata-sections>)
add_link_options($<$<CONFIG:MinSizeRel>:-Wl,--gc-sections>)

# Its table of functions is read-only when it runs: it is root's, and everybody on the set speaks to it.
add_link_options($<$<CONFIG:MinSizeRel>:-Wl,-z,relro,-z,now>)

if(VOK_SANITIZE)
  # Global, so that the generated code is instrumented as well.
  # -O1: what is instrumented compiles several times faster, and finds the same.
  add_compile_options(-fsanitize=${VOK_SANITIZE} -O1 -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VOK_SANITIZE})
  if(VOK_BUILD_FUZZERS)
    add_compile_options(-fsanitize-ignorelist=${PROJECT_SOURCE_DIR}/tests/fuzz/undefined.ignore)
  endif()
endif()

# vok_count_coverage(TARGET): in a build that counts, the lines and branches of TARGET are counted.
# Only the product's: what runs of the tests themselves tells nothing.
function(vok_count_coverage target)
  if(VOK_COVERAGE)
    # Atomic, because the counters belong to all threads of a broker, and to the child between vfork
    # and execve.
    target_compile_options(${target} PRIVATE --coverage -fprofile-update=atomic)
  endif()
endfunction()
if(VOK_COVERAGE)
  add_link_options(--coverage)
endif()

# vok_folder(NAME FILES...): the sources of one folder as the OBJECT library vok_NAME. OBJECT,
# because CBroker's vtable (broker/) needs open/, whose files include broker/CBroker.h.
function(vok_folder name)
  add_library(vok_${name} OBJECT ${ARGN})
  target_link_libraries(vok_${name} PUBLIC vok_options)
  vok_count_coverage(vok_${name})
endfunction()

# vok_is_hot(TARGET FILES...): what every call of a client runs through is built for speed also where
# everything else is built small.
function(vok_is_hot target)
  set_property(SOURCE ${ARGN} TARGET_DIRECTORY ${target} APPEND PROPERTY
    COMPILE_OPTIONS $<$<CONFIG:MinSizeRel>:-O2>)
endfunction()
