# What every target of the project is compiled with.
add_library(mirel_warnings INTERFACE)
target_compile_options(mirel_warnings INTERFACE -Wall -Wextra -Wshadow -Wconversion -Werror)

# Programs and libraries: no exceptions, no RTTI. Tests take mirel_warnings alone.
add_library(mirel_flags INTERFACE)
target_link_libraries(mirel_flags INTERFACE mirel_warnings Threads::Threads)
target_compile_options(mirel_flags INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>)

# The counters of programs and libraries only: they go by the names of functions, and the stand-ins of the tests have the same.
# The kernel keeps them in a file while the program runs, so that a killed one counts too.
option(MIREL_COVERAGE "Count which lines are reached; with clang" OFF)
if(MIREL_COVERAGE)
  target_compile_options(mirel_flags INTERFACE
    -O1 -fprofile-instr-generate -fcoverage-mapping "SHELL:-mllvm -runtime-counter-relocation")
  target_link_options(mirel_flags INTERFACE -fprofile-instr-generate)
endif()

# A program that loads libqvproc.so exports the five semaphore operations, and nothing else of its own.
function(mirel_export_semaphores target)
  target_link_libraries(${target} PRIVATE mirel_sema)
  target_link_options(${target} PRIVATE -Wl,--dynamic-list=${PROJECT_SOURCE_DIR}/sema/exports.list)
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/sema/exports.list)
endfunction()
