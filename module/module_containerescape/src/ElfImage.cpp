// SPDX-License-Identifier: Apache-2.0
// GetVdso and GetDynSym: see elf(5) and getauxval(3).
#include <elf.h>
#include <sys/auxv.h>

#include <cstring>
#include <span>

#include "ContainerEscapeUtil.h"

namespace Engine {
namespace {

// The file image as its headers describe it. Offsets in a file are offsets from the image's start.
class ElfImage {
public:
    explicit ElfImage(const void* image) : base(static_cast<const char*>(image)) {}

    std::span<const Elf64_Shdr> Sections() const
    {
        const auto* header = At<Elf64_Ehdr>(0);
        return {At<Elf64_Shdr>(header->e_shoff), header->e_shnum};
    }

    bool IsNamed(const Elf64_Shdr& section, const char* name) const
    {
        const Elf64_Shdr& names = Sections()[At<Elf64_Ehdr>(0)->e_shstrndx];
        return std::strcmp(At<char>(names.sh_offset + section.sh_name), name) == 0;
    }

    std::span<const Elf64_Sym> Symbols(const Elf64_Shdr& section) const
    {
        if (section.sh_entsize == 0) {
            return {};
        }
        return {At<Elf64_Sym>(section.sh_offset), section.sh_size / section.sh_entsize};
    }

    template <class T>
    const T* At(Elf64_Off offset) const
    {
        return static_cast<const T*>(static_cast<const void*>(base + offset));
    }

private:
    const char* base;
};

const char* FindDynamicNames(const ElfImage& elf)
{
    for (const Elf64_Shdr& section : elf.Sections()) {
        if (elf.IsNamed(section, ".dynstr")) {
            return elf.At<char>(section.sh_offset);
        }
    }
    return nullptr;
}

const Elf64_Sym* FindSymbol(std::span<const Elf64_Sym> symbols, const char* names, const char* name)
{
    for (const Elf64_Sym& symbol : symbols) {
        if (std::strcmp(names + symbol.st_name, name) == 0) {
            return &symbol;
        }
    }
    return nullptr;
}

}  // namespace

const void* GetVdso()
{
    // The auxiliary vector carries the address as an integer; there is no other form of it to be had.
    return reinterpret_cast<const void*>(::getauxval(AT_SYSINFO_EHDR));  // NOLINT(performance-no-int-to-ptr)
}

const void* GetDynSym(const void* image, const char* name)
{
    const ElfImage elf{image};
    const char* names = FindDynamicNames(elf);
    if (names == nullptr) {
        return nullptr;
    }
    for (const Elf64_Shdr& section : elf.Sections()) {
        if (!elf.IsNamed(section, ".dynsym")) {
            continue;
        }
        if (const Elf64_Sym* symbol = FindSymbol(elf.Symbols(section), names, name)) {
            return elf.At<char>(symbol->st_value);
        }
    }
    return nullptr;
}

}  // namespace Engine
