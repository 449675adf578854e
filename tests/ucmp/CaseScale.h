// How many random cases the rebase tests run. Sanitized and emulated
// (32-bit) builds run the loops ten times slower or worse, so they get an
// eighth of the cases (the defines come from the tests' CMake file).
#pragma once

#if defined(UCMP_TEST_SANITIZED) || defined(UCMP_TEST_EMULATED)
inline constexpr int kScale = 8;
#else
inline constexpr int kScale = 1;
#endif
