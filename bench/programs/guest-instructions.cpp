// A plug-in of QEMU's user emulation: how many instructions the emulated program executes, in all
// of its threads, between its last two system calls number 100000, which no kernel has. Says so on
// the standard error at the end, in callgrind's words.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

using Plugin = std::uint64_t;
using Word = std::uint64_t;

// What it needs of the plug-in interface, whose header Debian does not package.
extern "C" {
int qemu_plugin_version = 1;

struct qemu_plugin_tb;
std::size_t qemu_plugin_tb_n_insns(const qemu_plugin_tb* block);
void qemu_plugin_register_vcpu_tb_trans_cb(Plugin, void (*translated)(Plugin, qemu_plugin_tb*));
void qemu_plugin_register_vcpu_tb_exec_cb(qemu_plugin_tb*, void (*executed)(unsigned, void*),
                                          int flags, void* data);
void qemu_plugin_register_vcpu_syscall_cb(Plugin,
                                          void (*called)(Plugin, unsigned, std::int64_t, Word, Word,
                                                         Word, Word, Word, Word, Word, Word));
void qemu_plugin_register_atexit_cb(Plugin, void (*ended)(Plugin, void*), void* data);
}

static std::atomic<std::size_t> executed{0}, collected{0};

extern "C" int qemu_plugin_install(Plugin plugin, const void* /*machine*/, int /*count*/,
                                   char** /*arguments*/)
{
    const auto count = [](Plugin, qemu_plugin_tb* block) {
        auto* size = reinterpret_cast<void*>(qemu_plugin_tb_n_insns(block));
        const auto add = [](unsigned, void* added) {
            executed += reinterpret_cast<std::size_t>(added);
        };
        qemu_plugin_register_vcpu_tb_exec_cb(block, add, 0, size);
    };
    const auto mark = [](Plugin, unsigned, std::int64_t call, auto...) {
        collected = call == 100000 ? executed.exchange(0) : collected.load();
    };
    const auto say = [](Plugin, void*) {
        static_cast<void>(std::fprintf(stderr, "Collected : %zu\n", collected.load()));
    };
    qemu_plugin_register_vcpu_tb_trans_cb(plugin, count);
    qemu_plugin_register_vcpu_syscall_cb(plugin, mark);
    qemu_plugin_register_atexit_cb(plugin, say, nullptr);
    return 0;
}
