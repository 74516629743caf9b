// Denormal results are flushed to zero for the whole process (x86 also reads
// denormal operands as zero). Set during static initialisation, before main
// starts any thread, so every thread inherits it, the video library's too.
#include <cstdint>

#if defined(__SSE__)
#include <xmmintrin.h>
#endif

namespace {

struct FlushDenormals {
    FlushDenormals() {
#if defined(__SSE__)
        _mm_setcsr(_mm_getcsr() | 0x8040);  // FTZ | DAZ
#elif defined(__aarch64__)
        uint64_t fpcr = 0;
        asm volatile("mrs %0, fpcr" : "=r"(fpcr));
        fpcr |= uint64_t{1} << 24;  // FZ
        asm volatile("msr fpcr, %0" : : "r"(fpcr));
#endif
    }
} g_flushDenormals;

}  // namespace
