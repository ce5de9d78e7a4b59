// SPDX-License-Identifier: Apache-2.0
#include <elf.h>
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <ctime>

#include "ContainerEscapeUtil.h"
#include "support/MustRun.h"

namespace Engine {
namespace {

// A file image with two symbols. Sections: none, names, dynamic names, dynamic symbols.
struct Image {
    Elf64_Ehdr header{};
    std::array<Elf64_Shdr, 4> sections{};
    std::array<Elf64_Sym, 2> symbols{};
    char names[32] = "\0.shstrtab\0.dynstr\0.dynsym";
    char symbolNames[16] = "\0first\0second";

    Image()
    {
        header.e_shoff = offsetof(Image, sections);
        header.e_shnum = 4;
        header.e_shstrndx = 1;
        sections[1] = Section(1, offsetof(Image, names), sizeof(names), 0);
        sections[2] = Section(11, offsetof(Image, symbolNames), sizeof(symbolNames), 0);
        sections[3] = Section(19, offsetof(Image, symbols), sizeof(symbols), sizeof(Elf64_Sym));
        symbols[0].st_name = 1;
        symbols[0].st_value = 100;
        symbols[1].st_name = 7;
        symbols[1].st_value = 200;
    }

    static Elf64_Shdr Section(Elf64_Word name, Elf64_Off offset, Elf64_Xword size, Elf64_Xword entrySize)
    {
        Elf64_Shdr section{};
        section.sh_name = name;
        section.sh_offset = offset;
        section.sh_size = size;
        section.sh_entsize = entrySize;
        return section;
    }

    const void* At(std::size_t offset) const
    {
        return static_cast<const char*>(static_cast<const void*>(this)) + offset;
    }
};

TEST(ElfImageTest, FindsSymbolsByTheirWholeName)
{
    const Image image;
    EXPECT_EQ(GetDynSym(&image, "first"), image.At(100));
    EXPECT_EQ(GetDynSym(&image, "second"), image.At(200));
    EXPECT_EQ(GetDynSym(&image, "sec"), nullptr);
}

TEST(ElfImageTest, FindsNothingWhereTheSectionsDoNotTell)
{
    Image withoutSections;
    withoutSections.header.e_shnum = 0;
    EXPECT_EQ(GetDynSym(&withoutSections, "first"), nullptr);

    Image withoutNames;
    withoutNames.sections[2].sh_name = 0;
    EXPECT_EQ(GetDynSym(&withoutNames, "first"), nullptr);

    Image withoutEntrySize;
    withoutEntrySize.sections[3].sh_entsize = 0;
    EXPECT_EQ(GetDynSym(&withoutEntrySize, "first"), nullptr);
}

TEST(ElfImageTest, ReadsTheClockThroughTheVdso)
{
    const void* vdso = GetVdso();
    CE_REQUIRE(vdso != nullptr, "the kernel mapped no vDSO");
    const void* address = GetDynSym(vdso, "__vdso_clock_gettime");
    ASSERT_NE(address, nullptr);

    using ClockGetTime = int (*)(clockid_t, timespec*);
    const auto clockGetTime = reinterpret_cast<ClockGetTime>(reinterpret_cast<std::uintptr_t>(address));
    timespec before{};
    timespec now{};
    ASSERT_EQ(::clock_gettime(CLOCK_MONOTONIC, &before), 0);
    ASSERT_EQ(clockGetTime(CLOCK_MONOTONIC, &now), 0);
    EXPECT_TRUE(now.tv_sec > before.tv_sec || (now.tv_sec == before.tv_sec && now.tv_nsec >= before.tv_nsec));
}

}  // namespace
}  // namespace Engine
