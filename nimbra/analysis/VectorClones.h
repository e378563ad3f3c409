#pragma once
// The hot loops of the analyses are built twice, for AVX2 and for the
// baseline, and the loader picks one at run time, so wheels stay portable and
// still use the wider registers where they exist. The AVX2 target has no fused
// multiply-add, so both builds do the same operations in the same order and
// give bit-identical results on every machine.
#if defined(__GNUC__) && defined(__x86_64__) && !defined(__clang__)
#define NIMBRA_VECTOR_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define NIMBRA_VECTOR_CLONES
#endif

// Helpers of the vectorised loops must be inlined into them (into each clone).
#if defined(__GNUC__)
#define NIMBRA_ALWAYS_INLINE inline __attribute__((always_inline))
#else
#define NIMBRA_ALWAYS_INLINE inline
#endif
