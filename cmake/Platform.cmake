# Picks the operating-system half of a subsystem: every neutral file may have
# a sibling NAME_win32.cpp, NAME_linux.cpp or NAME_posix.cpp.
function(tarnlift_platform_sources out_var)
  set(result)
  foreach(base IN LISTS ARGN)
    if(WIN32)
      set(candidates ${base}_win32.cpp)
    else()
      set(candidates ${base}_linux.cpp ${base}_posix.cpp)
    endif()
    foreach(candidate IN LISTS candidates)
      if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${candidate})
        list(APPEND result ${candidate})
      endif()
    endforeach()
  endforeach()
  set(${out_var} ${result} PARENT_SCOPE)
endfunction()

if(WIN32)
  # One self-contained executable per program: no MinGW runtime DLLs beside it.
  add_link_options(-static -static-libgcc -static-libstdc++)
  add_compile_definitions(WIN32_LEAN_AND_MEAN NOMINMAX _WIN32_WINNT=0x0601)
  set(TARNLIFT_WIN32_LIBS ws2_32 iphlpapi comctl32 netapi32 shell32 comdlg32 ole32 user32 gdi32 advapi32)
endif()

# Runs a test program: natively, or through Wine when cross-compiling.
function(tarnlift_add_test name target)
  add_test(NAME ${name} COMMAND ${target} ${ARGN})
  set_tests_properties(${name} PROPERTIES TIMEOUT 300)
endfunction()

# Hardening of the Linux programs (the Debian package is made from this
# build): checked string and memory calls where the compiler optimises, and
# relocations bound and made read-only at start-up. Not with the sanitizers
# and the fuzzer, which bring their own checks and interceptors.
if(NOT WIN32 AND NOT TARNLIFT_SANITIZE AND NOT TARNLIFT_TSAN AND NOT TARNLIFT_FUZZ)
  add_compile_definitions($<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
  add_link_options(-Wl,-z,relro,-z,now)
endif()
