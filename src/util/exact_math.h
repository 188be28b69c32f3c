#pragma once

// Every output of this tool is promised bit for bit on every compiler and
// machine; fast-math would let the compiler reorder and contract sums.
#if defined(__FAST_MATH__)
#error "sonderlark must not be built with -ffast-math or -Ofast: its outputs are defined bit for bit"
#endif
