// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/CallFunctions.h"

#include <bpf/bpf.h>
#include <bpf/btf.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <string_view>

#include "host/ftrace/Log.h"

namespace Engine {
namespace {

using Clock = std::chrono::steady_clock;

// By entry: x86-64's, x32's, i386's, i386's where its arguments are laid out differently
// (arch/x86/include/asm/syscall_wrapper.h). A function that takes no argument has one body for all entries, and only
// that is among the kernel's types.
constexpr std::array<const char*, 5> prefixes{"__x64_sys_", "__x64_compat_sys_", "__ia32_sys_", "__ia32_compat_sys_",
                                              "__do_sys_"};
constexpr std::string_view bodyPrefix = "__do_sys_";
constexpr std::string_view i386Prefix = "__ia32_";

struct TypesDeleter {
    void operator()(btf* types) const { btf__free(types); }
};

}  // namespace

CallFunctions::CallFunctions()
{
    const std::unique_ptr<btf, TypesDeleter> types{btf__load_vmlinux_btf()};
    for (unsigned int id = 1; types != nullptr && id < btf__type_cnt(types.get()); ++id) {
        const btf_type* type = btf__type_by_id(types.get(), id);
        const char* const name = btf_is_func(type) ? btf__name_by_offset(types.get(), type->name_off) : nullptr;
        if (name != nullptr && std::any_of(prefixes.begin(), prefixes.end(), [name](const char* prefix) {
                return std::string_view{name}.starts_with(prefix);
            })) {
            functions.emplace(name, id);
            servesI386 = servesI386 || std::string_view{name}.starts_with(i386Prefix);
        }
    }
}

CallFunctions::~CallFunctions()
{
    for (auto& [function, entry] : entries) {
        static_cast<void>(entry.link.Release());
    }
}

bool CallFunctions::Attach(const std::vector<std::string>& names, std::uint64_t cookie)
{
    const std::vector<std::string> serving = Serving(names);
    const bool isDone = !serving.empty() && !program.empty() &&
                        std::all_of(serving.begin(), serving.end(),
                                    [this, cookie](const std::string& function) { return AttachTo(function, cookie); });
    if (!isDone) {
        Detach(cookie);
    }
    return isDone;
}

void CallFunctions::Detach(std::uint64_t cookie)
{
    for (auto& [function, entry] : entries) {
        if (entry.cookie == cookie) {
            entry.unused = std::min(entry.unused, Clock::now());
        }
    }
}

void CallFunctions::Purge(Clock::time_point now)
{
    std::vector<SDK::FileDescriptor> due;
    if (isClosing) {
        return;
    }
    for (auto next = entries.begin(); next != entries.end();) {
        Entry& entry = next->second;
        if (entry.unused == Clock::time_point::max() || now - entry.unused < linger) {
            ++next;
            continue;
        }
        missesOfPurged += MissesOf(entry.program.Get());
        due.push_back(std::move(entry.link));
        next = entries.erase(next);
    }
    if (!due.empty()) {
        isClosing = true;
        closer = std::jthread([this, links = std::move(due)](const std::stop_token& stop) mutable {
            for (SDK::FileDescriptor& link : links) {
                stop.stop_requested() ? static_cast<void>(link.Release()) : link.Reset();
            }
            isClosing = false;
        });
    }
}

std::uint64_t CallFunctions::MissesOf(int program)
{
    bpf_prog_info info{};
    unsigned int size = sizeof info;
    return bpf_obj_get_info_by_fd(program, &info, &size) == 0 ? info.recursion_misses : 0;
}

std::uint64_t CallFunctions::Misses() const
{
    std::uint64_t misses = missesOfPurged;
    for (const auto& [function, entry] : entries) {
        misses += MissesOf(entry.program.Get());
    }
    return misses;
}

// Empty when an entry lacks its function: then the call may have one of a name that is not known here.
std::vector<std::string> CallFunctions::Serving(const std::vector<std::string>& names) const
{
    std::vector<std::string> found;
    bool hasNative = false;
    bool hasI386 = !servesI386;
    for (const std::string& name : names) {
        const bool hasEntries = functions.contains("__x64_sys_" + name);
        for (const std::string_view prefix : prefixes) {
            std::string function = std::string{prefix} + name;
            const bool isBody = prefix == bodyPrefix;
            if (functions.contains(function) && !(isBody && hasEntries)) {
                hasNative = hasNative || isBody || function.starts_with("__x64_sys_");
                hasI386 = hasI386 || isBody || function.starts_with(i386Prefix);
                found.push_back(std::move(function));
            }
        }
    }
    return hasNative && hasI386 ? found : std::vector<std::string>{};
}

bool CallFunctions::AttachTo(const std::string& function, std::uint64_t cookie)
{
    if (const auto known = entries.find(function); known != entries.end()) {
        Entry& entry = known->second;
        entry.unused = entry.cookie == cookie ? Clock::time_point::max() : entry.unused;
        return entry.cookie == cookie;
    }
    bpf_prog_load_opts load{};
    load.sz = sizeof load;
    load.expected_attach_type = BPF_TRACE_FENTRY;
    load.attach_btf_id = functions.find(function)->second;
    SDK::FileDescriptor loaded{
        bpf_prog_load(BPF_PROG_TYPE_TRACING, "OnCallFunction", "GPL", program.data(), program.size(), &load)};
    bpf_link_create_opts options{};
    options.sz = sizeof options;
    options.tracing.cookie = cookie;
    SDK::FileDescriptor link{loaded ? bpf_link_create(loaded.Get(), 0, BPF_TRACE_FENTRY, &options) : -1};
    if (!link) {
        TraceLog::Debug("no program at the function %s: errno %d", function, errno);
        return false;
    }
    entries.emplace(function, Entry{cookie, std::move(loaded), std::move(link), Clock::time_point::max()});
    return true;
}

}  // namespace Engine
