#pragma once

// Hot loops get AVX2 and AVX-512 clones, picked once at load time. The thread-sanitizer build
// goes without: the clones' resolvers run during relocation, before its runtime exists.
#if defined(__SANITIZE_THREAD__)
#define VORN_DISPATCH
#else
#define VORN_DISPATCH __attribute__((target_clones("avx512f", "avx2", "default")))
#endif

// Clang cannot clone function templates; its builds (fuzzing) keep the baseline loop there.
#if defined(__clang__)
#define VORN_DISPATCH_TEMPLATE
#else
#define VORN_DISPATCH_TEMPLATE VORN_DISPATCH
#endif

// Loops whose maths uses explicit fused multiply-adds: x86-64-v3 (AVX2 with FMA) and AVX-512
// fuse them in hardware, older CPUs take the library's exact software steps, so every clone
// rounds the same. Clang clones no templates, and its builds and the thread sanitizer's keep
// the baseline loop.
#if defined(__SANITIZE_THREAD__) || defined(__clang__)
#define VORN_FMA_DISPATCH
#else
#define VORN_FMA_DISPATCH __attribute__((target_clones("avx512f", "arch=x86-64-v3", "default")))
#endif

// The caller's promise that no iteration writes what another reads. Clang (the fuzzing builds)
// goes without: it warns where it then cannot vectorise, and speed does not matter there.
#if defined(__clang__)
#define VORN_IVDEP
#else
#define VORN_IVDEP _Pragma("GCC ivdep")
#endif
