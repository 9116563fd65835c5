# Compiler and linker flags of the library, gathered in the target parvo_flags.

add_library(parvo_flags INTERFACE)
target_compile_definitions(parvo_flags INTERFACE
  USE_TCL_STUBS TCL_THREADS=1 _GNU_SOURCE
  PARVO_BUILD_HOST="${PARVO_BUILD_HOST}" PARVO_VERSION="${PROJECT_VERSION}")
target_include_directories(parvo_flags SYSTEM INTERFACE ${TCL_INCLUDE_DIRS})
target_compile_options(parvo_flags INTERFACE
  -UNDEBUG -fno-exceptions -fno-rtti -fvisibility=hidden -fvisibility-inlines-hidden
  -fstack-protector-strong
  "-ffile-prefix-map=${PROJECT_SOURCE_DIR}=."
  "-ffile-prefix-map=${PROJECT_BINARY_DIR}=build"
  -Wall -Wextra -Wshadow -Wconversion -Wformat=2 -Wmissing-declarations
  -Wold-style-cast)
target_link_options(parvo_flags INTERFACE
  LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack LINKER:--as-needed
  LINKER:--build-id=sha1)

if(PARVO_SANITIZE)
  target_compile_options(parvo_flags INTERFACE
    "-fsanitize=${PARVO_SANITIZE}" -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(parvo_flags INTERFACE "-fsanitize=${PARVO_SANITIZE}")
else()
  # A sanitizer's run-time library is only there at load time.
  target_link_options(parvo_flags INTERFACE LINKER:-z,defs)
  if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    target_compile_options(parvo_flags INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  endif()
endif()
if(PARVO_COVERAGE)
  target_compile_options(parvo_flags INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(parvo_flags INTERFACE --coverage)
endif()
