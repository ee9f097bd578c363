# Warnings are errors everywhere. Product code also gets -Wconversion: the
# libraries pack and unpack driver payloads by byte offset, where a silent
# narrowing is a real bug. Tests skip it (GoogleTest macros compare mixed
# integer types on purpose).
add_library(vd_warnings INTERFACE)
target_compile_options(vd_warnings INTERFACE -Wall -Wextra -Werror -Wshadow)

add_library(vd_strict_warnings INTERFACE)
target_link_libraries(vd_strict_warnings INTERFACE vd_warnings)
target_compile_options(vd_strict_warnings INTERFACE -Wconversion -Wsign-conversion)

# Public headers are included as "libutil/x.h", "kxdmapi/kxdmapi.h", ...
set(VD_INCLUDE_ROOT ${PROJECT_SOURCE_DIR})

# Install a library's public headers under include/<dir>/.
function(vd_install_headers dir)
  install(FILES ${ARGN} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${dir})
endfunction()
