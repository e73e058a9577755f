#include "support/links.hpp"

#include <cstdint>
#include <cstring>
#include <elf.h>
#include <link.h>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace vyt::test {
namespace {

struct dynamic_section {
    const char *names = nullptr;
    const ElfW(Sym) *symbols = nullptr;
    const ElfW(Rela) * tables[2] = {};
    size_t sizes[2] = {};
};

dynamic_section read_dynamic(const dl_phdr_info &info)
{
    dynamic_section section;
    for (int i = 0; i < info.dlpi_phnum; i++) {
        if (info.dlpi_phdr[i].p_type != PT_DYNAMIC)
            continue;
        const auto *entry =
            reinterpret_cast<const ElfW(Dyn) *>(info.dlpi_addr + info.dlpi_phdr[i].p_vaddr);
        for (; entry->d_tag != DT_NULL; entry++) {
            const auto address = entry->d_un.d_ptr;
            switch (entry->d_tag) {
            case DT_STRTAB:
                section.names = reinterpret_cast<const char *>(address);
                break;
            case DT_SYMTAB:
                section.symbols = reinterpret_cast<const ElfW(Sym) *>(address);
                break;
            case DT_JMPREL:
                section.tables[0] = reinterpret_cast<ElfW(Rela) *>(address);
                break;
            case DT_PLTRELSZ:
                section.sizes[0] = entry->d_un.d_val;
                break;
            case DT_RELA:
                section.tables[1] = reinterpret_cast<ElfW(Rela) *>(address);
                break;
            case DT_RELASZ:
                section.sizes[1] = entry->d_un.d_val;
                break;
            default:
                break;
            }
        }
    }
    return section;
}

struct redirection {
    const char *name;
    const std::function<void *(const char *)> &target_of;
    bool found = false;
    std::vector<redirected_link> links = {};
};

void redirect(redirection &redirected, void **slot, void *target)
{
    const auto page_size = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto page = reinterpret_cast<uintptr_t>(slot) & ~(page_size - 1);
    if (mprotect(reinterpret_cast<void *>(page), page_size, PROT_READ | PROT_WRITE) != 0)
        throw std::runtime_error("mprotect of the library's links failed");
    redirected.links.push_back({.slot = slot, .before = *slot});
    *slot = target;
}

int redirect_library(dl_phdr_info *info, size_t, void *data)
{
    auto &redirected = *static_cast<redirection *>(data);
    if (strstr(info->dlpi_name, redirected.name) == nullptr)
        return 0;
    const dynamic_section section = read_dynamic(*info);
    for (int table = 0; table < 2; table++) {
        const size_t count = section.sizes[table] / sizeof(ElfW(Rela));
        for (size_t i = 0; i < count; i++) {
            const ElfW(Rela) &link = section.tables[table][i];
            const char *name = section.names + section.symbols[ELF64_R_SYM(link.r_info)].st_name;
            if (void *target = redirected.target_of(name))
                redirect(redirected, reinterpret_cast<void **>(info->dlpi_addr + link.r_offset),
                         target);
        }
    }
    redirected.found = true;
    return 1;
}

} // namespace

std::vector<redirected_link> redirect_links(const char *library,
                                            const std::function<void *(const char *)> &target_of)
{
    redirection redirected = {.name = library, .target_of = target_of};
    dl_iterate_phdr(redirect_library, &redirected);
    if (!redirected.found)
        throw std::runtime_error(std::string(library) + " is not loaded");
    return redirected.links;
}

} // namespace vyt::test
