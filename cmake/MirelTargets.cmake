# What every target of the project is compiled with.
add_library(mirel_warnings INTERFACE)
target_compile_options(mirel_warnings INTERFACE -Wall -Wextra -Wshadow -Wconversion -Werror)

# Programs and libraries: no exceptions, no RTTI. Tests take mirel_warnings alone.
add_library(mirel_flags INTERFACE)
target_link_libraries(mirel_flags INTERFACE mirel_warnings Threads::Threads)
target_compile_options(mirel_flags INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>)

# A program that loads libqvproc.so exports the five semaphore operations, and nothing else of its own.
function(mirel_export_semaphores target)
  target_link_libraries(${target} PRIVATE mirel_sema)
  target_link_options(${target} PRIVATE -Wl,--dynamic-list=${PROJECT_SOURCE_DIR}/sema/exports.list)
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/sema/exports.list)
endfunction()
