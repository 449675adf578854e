# Whether the 32-bit programs this build makes can run here, and if not, the
# emulator that runs them. Many x86-64 kernels are built or booted without
# 32-bit execution; Debian's qemu-user runs such programs unchanged.
#
# Probed once per build tree and cached as ROUTINGLIB_EMULATOR (empty when
# programs run natively). Configuring with the environment variable
# ROUTINGLIB_EMULATE_I386=1 forces the emulated path, so that it can be
# exercised on any machine; `-U ROUTINGLIB_EMULATOR` probes again.
#
# With an emulator, CMAKE_CROSSCOMPILING_EMULATOR makes CTest (test discovery
# included) start every test program through it, and each test gets
# ROUTINGLIB_TEST_EMULATOR in its environment: programs that a test starts
# itself go through it too, and what cannot work under emulation is skipped
# with its reason.

if(NOT DEFINED CACHE{ROUTINGLIB_EMULATOR}
   OR ("$ENV{ROUTINGLIB_EMULATE_I386}" STREQUAL "1" AND NOT ROUTINGLIB_EMULATOR))
  set(reason "")
  if("$ENV{ROUTINGLIB_EMULATE_I386}" STREQUAL "1")
    set(reason "ROUTINGLIB_EMULATE_I386=1")
  else()
    try_run(probe_run probe_compile ${CMAKE_BINARY_DIR}/probe-i386
            ${CMAKE_CURRENT_LIST_DIR}/probe/Runs.c
            COMPILE_DEFINITIONS -m32 LINK_OPTIONS -m32
            COMPILE_OUTPUT_VARIABLE probe_log)
    if(NOT probe_compile)
      message(FATAL_ERROR "cannot build a 32-bit x86 program (is g++-multilib installed?):\n${probe_log}")
    endif()
    if(NOT probe_run STREQUAL "0")
      set(reason "this kernel does not run 32-bit x86 programs")
    endif()
  endif()
  set(emulator "")
  if(reason)
    find_program(qemu_i386 qemu-i386)
    if(NOT qemu_i386)
      message(FATAL_ERROR "${reason}, and qemu-i386 (Debian package qemu-user) is not installed")
    endif()
    set(emulator ${qemu_i386})
    message(STATUS "32-bit programs run under ${emulator}: ${reason}")
  endif()
  set(ROUTINGLIB_EMULATOR "${emulator}" CACHE STRING
      "Emulator that runs this build's programs (empty: they run natively)" FORCE)
endif()

if(ROUTINGLIB_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${ROUTINGLIB_EMULATOR})
endif()
