# Compiler and linker flags, each with its reason.

add_library(tarn_flags INTERFACE)
target_compile_options(tarn_flags INTERFACE
  -Wall -Wextra -Wshadow -Wpointer-arith -Wcast-qual -Wvla -Wformat=2 -Wno-format-nonliteral)
if(TARN_WERROR)
  target_compile_options(tarn_flags INTERFACE -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(tarn_flags INTERFACE -Wthread-safety)
endif()

# A small packet passes some hundred functions, and a frame pointer in each is a thirtieth of its instructions. For a
# profile with callers, perf reads the stacks instead: perf record --call-graph dwarf.
if(NOT CMAKE_BUILD_TYPE MATCHES "Rel")
  target_compile_options(tarn_flags INTERFACE -fno-omit-frame-pointer)
endif()

# The library takes packets from anyone who reaches its port: a mistake in it should end the process, not serve the
# attacker. The sanitizers need the plain code.
if(TARN_SANITIZE)
  # Instrumented code hides from gcc how long a literal is and what was written; the other builds keep these warnings.
  # The check of objects' types asks for the type information that the library does not have.
  target_compile_options(tarn_flags INTERFACE -fsanitize=${TARN_SANITIZE} -fno-sanitize-recover=all -fno-sanitize=vptr -g
    $<$<CXX_COMPILER_ID:GNU>:-Wno-stringop-overread -Wno-maybe-uninitialized>)
  target_link_options(tarn_flags INTERFACE -fsanitize=${TARN_SANITIZE})
  target_compile_definitions(tarn_flags INTERFACE TARN_SANITIZED="${TARN_SANITIZE}" _GLIBCXX_ASSERTIONS)
elseif(CMAKE_BUILD_TYPE MATCHES "Rel")
  # Some compilers come with a level of their own built in, hence -U.
  target_compile_options(tarn_flags INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-clash-protection)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64|i.86")
    target_compile_options(tarn_flags INTERFACE -fcf-protection)
  endif()
endif()
if(TARN_COVERAGE)
  target_compile_options(tarn_flags INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(tarn_flags INTERFACE --coverage)
endif()

# The library reports every failure by its result, so nothing in it throws; statics have no destructors, because its
# threads may outlive main(). A call inside the library is bound to the library even when the host defines the name.
# Its thread-local variables, some 250 bytes, fit into what the loader keeps for a library that a host opens later.
set(TARN_LIBRARY_FLAGS
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fvisibility-inlines-hidden -fno-threadsafe-statics>
  -fvisibility=hidden -fno-semantic-interposition -fstack-protector-strong -ftls-model=initial-exec)

# -z nodelete: dlclose must not unmap code that the accept thread still runs.
set(TARN_LIBRARY_LINK_FLAGS
  -Wl,-Bsymbolic-functions -Wl,-z,nodelete -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
if(NOT TARN_SANITIZE)
  list(APPEND TARN_LIBRARY_LINK_FLAGS -Wl,-z,defs)
endif()
