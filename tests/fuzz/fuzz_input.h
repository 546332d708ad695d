/*
 * fuzz_input.h - what the fuzz harnesses share.  Each defines one body
 * `int Fuzz<Name>(const uint8_t *, size_t)` and names it in
 * PMDB_FUZZ_TARGET: with PMDB_LIBFUZZER it is libFuzzer's target (the setup
 * runs once), without it fuzz_regress_test feeds it the kept inputs, so that
 * a fixed crash stays fixed in `make test`.
 */
#ifndef PMDB_TESTS_FUZZ_INPUT_H
#define PMDB_TESTS_FUZZ_INPUT_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "host/os_host.h"

namespace fuzz {

/* Bytes of the input taken from the front; past the end every read is 0,
 * so that any input is a whole case. */
class Input {
public:
    Input(const uint8_t *data, size_t size) : p_(data), left_(size) {}
    bool empty() const { return left_ == 0; }
    uint8_t Byte() {
        if (left_ == 0) return 0;
        left_--;
        return *p_++;
    }
    uint16_t U16() { return static_cast<uint16_t>(Byte() | (Byte() << 8)); }
    uint32_t U32() { return U16() | (static_cast<uint32_t>(U16()) << 16); }
    template <class T, size_t N>
    T Pick(const T (&values)[N]) {
        return values[Byte() % N];
    }

private:
    const uint8_t *p_;
    size_t left_;
};

/* A broken invariant: one line on stderr and abort, which libFuzzer keeps
 * as a crash and the regression test reports as its failure. */
[[noreturn]] inline void Broken(const std::string &what, unsigned long long a = 0,
                                unsigned long long b = 0) {
    fprintf(stderr, "fuzz: broken invariant: %s (0x%llx, 0x%llx)\n", what.c_str(), a, b);
    abort();
}

/* libFuzzer's process: a namespace of its own ("<prefix><pid>", also in
 * PMDB_NS), removed at exit; its name. */
inline const char *OwnNamespace(const char *prefix) {
    static char ns[24];
    snprintf(ns, sizeof ns, "%s%d", prefix, static_cast<int>(getpid()));
    vorn_host_set_namespace(ns);
    setenv("PMDB_NS", ns, 1);
    atexit([] { vorn_host_remove_namespace(ns); });
    return ns;
}

}  // namespace fuzz

#ifdef PMDB_LIBFUZZER
#define PMDB_FUZZ_TARGET(body, setup)                                          \
    extern "C" int LLVMFuzzerInitialize(int *, char ***) {                     \
        setup();                                                               \
        return 0;                                                              \
    }                                                                          \
    extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) { \
        return body(data, size);                                               \
    }
#else
#define PMDB_FUZZ_TARGET(body, setup)
#endif

#endif
