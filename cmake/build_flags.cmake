# One INTERFACE target carries how every target of this tree is compiled.
add_library(log_consumer_build_flags INTERFACE)

target_include_directories(log_consumer_build_flags INTERFACE ${PROJECT_SOURCE_DIR})
# In front of the system's folders: its syslog.h.
target_include_directories(log_consumer_build_flags SYSTEM INTERFACE ${PROJECT_SOURCE_DIR}/compat/syslog)

target_compile_options(log_consumer_build_flags INTERFACE
  -Wall -Wextra -Wpedantic     # the usual
  $<$<BOOL:${LOG_CONSUMER_WERROR}>:-Werror>  # a warning left standing hides the next one
  -Wconversion -Wsign-conversion  # sizes travel between int, long and size_t here
  -Wshadow                     # a hidden name is read as the other one
  -Wnon-virtual-dtor -Woverloaded-virtual
  -Wold-style-cast             # a C cast also drops const
  -Wcast-align -Wcast-qual     # ARMv7 faults on misaligned access
  -Wformat=2                   # every syslog text is a format
  -Wnull-dereference
  -Wimplicit-fallthrough
  -funwind-tables -fasynchronous-unwind-tables  # a crash trace walks every frame, on ARM too
  -fno-omit-frame-pointer
  -fstack-protector-strong)

# Where long has 32 bits: time beyond 2038 and files beyond 2 GiB. Types of the libraries' interfaces
# follow, so this is said to everyone who links a library of this tree.
set(log_consumer_wide_types "")
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(log_consumer_wide_types _FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()
target_compile_definitions(log_consumer_build_flags INTERFACE ${log_consumer_wide_types})

if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  target_compile_options(log_consumer_build_flags INTERFACE
    -Wduplicated-cond -Wlogical-op
    -Wno-psabi)                # notes on a changed ABI of old compilers, nothing to mend
  if(CMAKE_SIZEOF_VOID_P EQUAL 8)
    # Where size_t has 32 bits, the casts that 64 bits need are reported as useless.
    target_compile_options(log_consumer_build_flags INTERFACE -Wuseless-cast)
  endif()
endif()

# Debug is -Og, not -O0: _FORTIFY_SOURCE needs an optimising compiler.
set(CMAKE_CXX_FLAGS_DEBUG "-Og -g")
set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O2 -g -DNDEBUG")
target_compile_options(log_consumer_build_flags INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)

include(CheckPIESupported)
check_pie_supported()
# -rdynamic: a crash trace names the program's own functions.
target_link_options(log_consumer_build_flags INTERFACE
  -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -rdynamic)

# UBSan doubles the compiler's time over headers of templates: it watches what ships, AddressSanitizer
# and ThreadSanitizer also what never leaves the desk (targets made where LOG_CONSUMER_DESK is set).
define_property(TARGET PROPERTY LOG_CONSUMER_DESK INITIALIZE_FROM_VARIABLE LOG_CONSUMER_DESK)
if(LOG_CONSUMER_SANITIZE)
  string(REPLACE "," ";" sanitizers "${LOG_CONSUMER_SANITIZE}")
  foreach(sanitizer IN LISTS sanitizers)
    set(option -fsanitize=${sanitizer})
    if(sanitizer STREQUAL "undefined")
      set(option $<$<NOT:$<BOOL:$<TARGET_PROPERTY:LOG_CONSUMER_DESK>>>:${option}>)
    endif()
    target_compile_options(log_consumer_build_flags INTERFACE ${option})
  endforeach()
  target_compile_options(log_consumer_build_flags INTERFACE
    -fno-sanitize-recover=all
    -g1                          # reports name lines, not variables; -g takes far longer
    -fno-optimize-sibling-calls  # reports and suppressions name the function that really called
    -Wno-null-dereference $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)  # false reports in instrumented library headers
  target_link_options(log_consumer_build_flags INTERFACE -fsanitize=${LOG_CONSUMER_SANITIZE})
endif()
if(LOG_CONSUMER_FUZZ)
  target_compile_options(log_consumer_build_flags INTERFACE -fsanitize=fuzzer-no-link)
  target_link_options(log_consumer_build_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(LOG_CONSUMER_COVERAGE)
  target_compile_options(log_consumer_build_flags INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(log_consumer_build_flags INTERFACE --coverage)
endif()

# log_consumer_library(NAME SOURCES... ) : a static library of this tree. Who links it from another
# tree gets its headers; with what warnings that code is compiled is not this tree's business.
function(log_consumer_library name)
  add_library(${name} STATIC ${ARGN})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_compile_definitions(${name} INTERFACE ${log_consumer_wide_types})
  target_link_libraries(${name} PRIVATE log_consumer_build_flags)
endfunction()

# log_consumer_program(NAME SOURCES... ) : a program of this tree.
function(log_consumer_program name)
  add_executable(${name} ${ARGN})
  if(LOG_CONSUMER_SANITIZE MATCHES "thread")
    target_sources(${name} PRIVATE ${PROJECT_SOURCE_DIR}/cmake/tsan_suppressions.cpp)
  endif()
  target_link_libraries(${name} PRIVATE log_consumer_build_flags)
endfunction()
