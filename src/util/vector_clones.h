#pragma once

// Marks a hot loop of plain IEEE arithmetic to be compiled also for AVX2 and
// AVX-512 and chosen when the program is loaded. Every version computes the
// same bits: each operation is rounded on its own (-ffp-contract=off) and the
// compiler never reorders floating-point sums, so wider vectors only do more
// of the same independent operations at once.
#if defined(__x86_64__) && defined(__linux__) && !defined(SONDERLARK_NO_VECTOR_CLONES)
#define SONDERLARK_VECTOR_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
#else
#define SONDERLARK_VECTOR_CLONES
#endif
