/* A qemu TCG plugin that counts the guest instructions a process executes,
 * all of its threads together, and writes the total when the process exits:
 *
 *   qemu-aarch64 -plugin libcount_insns.so[,out=FILE][,where=on] PROGRAM ...
 *
 * With out=FILE it appends "pid=PID insns=N" to FILE (one line per process,
 * so a forked child does not overwrite its parent's line); without it the
 * line goes to qemu's log (stderr). With where=on it also appends, for each
 * translated block that ran, "pid=PID at=FILE+OFFSET insns=N": where the
 * block's first instruction lies in the files the process has mapped (the
 * program, its libraries), for telling which functions the count goes to.
 *
 * Counting: each translated block gets an execution callback that adds the
 * block's instruction count to the counter of the vCPU running it. Under
 * qemu-user every guest thread is a vCPU of its own, and a vCPU index is
 * only handed to a new thread once the thread that had it is gone, so each
 * counter has one writer at a time and needs no atomic operation; the
 * counters sit on separate cache lines. The inline add that qemu offers
 * instead targets one shared word and loses counts between threads. A
 * block left early by an exception counts whole, which the guests measured
 * here (no faults in steady state) do not do. With where=on each block
 * also counts its own executions, atomically (two threads may run it).
 *
 * qemu ships no header for its plugin API; the declarations below are
 * those of API version 1 (include/qemu/qemu-plugin.h in qemu 7.2), the few
 * this plugin calls. */
#include <inttypes.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define QEMU_PLUGIN_EXPORT __attribute__((visibility("default")))

typedef uint64_t qemu_plugin_id_t;

typedef struct qemu_info_t {
    const char *target_name;
    struct {
        int min;
        int cur;
    } version;
    bool system_emulation;
    union {
        struct {
            int smp_vcpus;
            int max_vcpus;
        } system;
    };
} qemu_info_t;

struct qemu_plugin_tb;

enum qemu_plugin_cb_flags {
    QEMU_PLUGIN_CB_NO_REGS,
    QEMU_PLUGIN_CB_R_REGS,
    QEMU_PLUGIN_CB_RW_REGS,
};

typedef void (*qemu_plugin_udata_cb_t)(qemu_plugin_id_t id, void *userdata);
typedef void (*qemu_plugin_vcpu_udata_cb_t)(unsigned int vcpu_index, void *userdata);
typedef void (*qemu_plugin_vcpu_tb_trans_cb_t)(qemu_plugin_id_t id, struct qemu_plugin_tb *tb);

void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id, qemu_plugin_vcpu_tb_trans_cb_t cb);
void qemu_plugin_register_vcpu_tb_exec_cb(struct qemu_plugin_tb *tb, qemu_plugin_vcpu_udata_cb_t cb,
                                          enum qemu_plugin_cb_flags flags, void *userdata);
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb *tb);
uint64_t qemu_plugin_tb_vaddr(const struct qemu_plugin_tb *tb);
void qemu_plugin_register_atexit_cb(qemu_plugin_id_t id, qemu_plugin_udata_cb_t cb, void *userdata);
void qemu_plugin_outs(const char *string);

QEMU_PLUGIN_EXPORT int qemu_plugin_version = 1;

/* Enough for every thread the measured programs start over their lives;
 * higher vCPU indices share one atomic counter. */
enum { kCounters = 4096 };

struct Counter {
    _Alignas(64) uint64_t insns;
};

static struct Counter g_counters[kCounters];
static _Atomic uint64_t g_overflow;
static const char *g_out;

/* where=on: every translation of a block, newest first. */
struct Block {
    uint64_t vaddr;
    uint64_t insns;
    _Atomic uint64_t runs;
    struct Block *next;
};
static bool g_where;
static struct Block *_Atomic g_blocks;

static void count(unsigned int vcpu, uint64_t n) {
    if (vcpu < kCounters) {
        g_counters[vcpu].insns += n;
    } else {
        atomic_fetch_add_explicit(&g_overflow, n, memory_order_relaxed);
    }
}

static void onBlock(unsigned int vcpu, void *userdata) {
    count(vcpu, (uint64_t)(uintptr_t)userdata);
}

static void onTrackedBlock(unsigned int vcpu, void *userdata) {
    struct Block *b = userdata;
    count(vcpu, b->insns);
    atomic_fetch_add_explicit(&b->runs, 1, memory_order_relaxed);
}

static void onTranslate(qemu_plugin_id_t id, struct qemu_plugin_tb *tb) {
    (void)id;
    const uintptr_t n = qemu_plugin_tb_n_insns(tb);
    struct Block *b = g_where ? calloc(1, sizeof *b) : NULL;
    if (b == NULL) {
        qemu_plugin_register_vcpu_tb_exec_cb(tb, onBlock, QEMU_PLUGIN_CB_NO_REGS, (void *)n);
        return;
    }
    b->vaddr = qemu_plugin_tb_vaddr(tb);
    b->insns = n;
    b->next = atomic_load(&g_blocks);
    while (!atomic_compare_exchange_weak(&g_blocks, &b->next, b)) {
    }
    qemu_plugin_register_vcpu_tb_exec_cb(tb, onTrackedBlock, QEMU_PLUGIN_CB_NO_REGS, b);
}

/* The process's file mappings. Under qemu-user on a 64-bit host the guest's
 * addresses are the host's (no guest base), so qemu's own maps hold them. */
struct Mapping {
    uint64_t start, end, offset;
    char path[256];
};

static size_t readMappings(struct Mapping **out) {
    FILE *maps = fopen("/proc/self/maps", "r");
    size_t n = 0, capacity = 0;
    *out = NULL;
    if (maps == NULL) return 0;
    char line[512];
    while (fgets(line, sizeof line, maps) != NULL) {
        struct Mapping m = {0};
        if (sscanf(line, "%" SCNx64 "-%" SCNx64 " %*s %" SCNx64 " %*s %*s %255s", &m.start, &m.end,
                   &m.offset, m.path) != 4 ||
            m.path[0] != '/')
            continue;
        if (n == capacity) {
            capacity = capacity ? capacity * 2 : 256;
            struct Mapping *grown = realloc(*out, capacity * sizeof **out);
            if (grown == NULL) break;
            *out = grown;
        }
        (*out)[n++] = m;
    }
    fclose(maps);
    return n;
}

static void writeWhere(FILE *out) {
    struct Mapping *maps = NULL;
    const size_t n = readMappings(&maps);
    for (struct Block *b = atomic_load(&g_blocks); b != NULL; b = b->next) {
        const uint64_t runs = atomic_load(&b->runs);
        if (runs == 0) continue;
        const struct Mapping *m = NULL;
        for (size_t i = 0; i < n && m == NULL; ++i) {
            if (b->vaddr >= maps[i].start && b->vaddr < maps[i].end) m = &maps[i];
        }
        fprintf(out, "pid=%ld at=%s+0x%" PRIx64 " insns=%" PRIu64 "\n", (long)getpid(),
                m != NULL ? m->path : "?", m != NULL ? b->vaddr - m->start + m->offset : b->vaddr,
                runs * b->insns);
    }
    free(maps);
}

static void onExit(qemu_plugin_id_t id, void *userdata) {
    (void)id;
    (void)userdata;
    uint64_t total = atomic_load(&g_overflow);
    for (int i = 0; i < kCounters; ++i) total += g_counters[i].insns;
    char line[96];
    snprintf(line, sizeof line, "pid=%ld insns=%" PRIu64 "\n", (long)getpid(), total);
    FILE *out = g_out != NULL ? fopen(g_out, "a") : NULL;
    if (out != NULL) {
        fputs(line, out);
        if (g_where) writeWhere(out);
        fclose(out);
    } else {
        qemu_plugin_outs(line);
    }
}

QEMU_PLUGIN_EXPORT int qemu_plugin_install(qemu_plugin_id_t id, const qemu_info_t *info, int argc,
                                           char **argv) {
    if (info->system_emulation) return -1; /* vCPUs are not threads there */
    for (int i = 0; i < argc; ++i) {
        if (strncmp(argv[i], "out=", 4) == 0) {
            g_out = argv[i] + 4;
        } else if (strcmp(argv[i], "where=on") == 0) {
            g_where = true;
        } else {
            fprintf(stderr, "count_insns: unknown argument %s\n", argv[i]);
            return -1;
        }
    }
    qemu_plugin_register_vcpu_tb_trans_cb(id, onTranslate);
    qemu_plugin_register_atexit_cb(id, onExit, NULL);
    return 0;
}
