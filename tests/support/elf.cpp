#include "support/elf.hpp"

#include <cstring>
#include <stdexcept>

#include "support/process.hpp"

namespace vyt::test {

Elf::Elf(const std::string &path) : bytes_(read_file(path))
{
    header_ = table<Elf64_Ehdr>(0, 1).front();
    if (memcmp(header_.e_ident, ELFMAG, SELFMAG) != 0 || header_.e_ident[EI_CLASS] != ELFCLASS64 ||
        header_.e_type != ET_DYN)
        throw std::runtime_error(path + " is no 64-bit shared object");
    sections_ = table<Elf64_Shdr>(header_.e_shoff, header_.e_shnum);
}

template <class T>
std::vector<T> Elf::table(uint64_t offset, uint64_t count) const
{
    if (offset > bytes_.size() || count > (bytes_.size() - offset) / sizeof(T))
        throw std::runtime_error("a table reaches beyond the end of the object");
    std::vector<T> entries(count);
    memcpy(entries.data(), bytes_.data() + offset, count * sizeof(T));
    return entries;
}

const Elf64_Shdr *Elf::section(uint32_t type) const
{
    for (const Elf64_Shdr &s : sections_) {
        if (s.sh_type == type)
            return &s;
    }
    return nullptr;
}

std::string Elf::text(const Elf64_Shdr &texts, uint64_t offset) const
{
    return bytes_.c_str() + texts.sh_offset + offset;
}

std::vector<elf_symbol> Elf::symbols(uint32_t type) const
{
    std::vector<elf_symbol> found;
    const Elf64_Shdr *symbols = section(type);
    if (symbols == nullptr)
        return found;
    for (const auto &s :
         table<Elf64_Sym>(symbols->sh_offset, symbols->sh_size / sizeof(Elf64_Sym))) {
        if (ELF64_ST_TYPE(s.st_info) == STT_SECTION) // ARM's linker marks places with them
            continue;
        const bool placed = s.st_shndx != SHN_UNDEF && s.st_shndx < sections_.size();
        found.push_back({
            .name = text(sections_.at(symbols->sh_link), s.st_name),
            .address = s.st_value,
            .size = s.st_size,
            .defined = s.st_shndx != SHN_UNDEF,
            .function = ELF64_ST_TYPE(s.st_info) == STT_FUNC,
            .zero_at_load = placed && sections_[s.st_shndx].sh_type == SHT_NOBITS,
        });
    }
    return found;
}

std::vector<elf_symbol> Elf::dynamic_symbols() const
{
    return symbols(SHT_DYNSYM);
}

std::vector<elf_symbol> Elf::all_symbols() const
{
    return symbols(SHT_SYMTAB);
}

std::vector<uint64_t> Elf::dynamic_values(int64_t tag) const
{
    std::vector<uint64_t> values;
    const Elf64_Shdr *dynamic = section(SHT_DYNAMIC);
    if (dynamic == nullptr)
        throw std::runtime_error("the object has no dynamic section");
    for (const auto &entry :
         table<Elf64_Dyn>(dynamic->sh_offset, dynamic->sh_size / sizeof(Elf64_Dyn))) {
        if (entry.d_tag == tag)
            values.push_back(entry.d_un.d_val);
    }
    return values;
}

std::vector<std::string> Elf::dynamic_texts(int64_t tag) const
{
    std::vector<std::string> texts;
    for (const uint64_t offset : dynamic_values(tag))
        texts.push_back(text(sections_.at(section(SHT_DYNAMIC)->sh_link), offset));
    return texts;
}

std::vector<uint32_t> Elf::segment_flags(uint32_t type) const
{
    std::vector<uint32_t> flags;
    for (const auto &segment : table<Elf64_Phdr>(header_.e_phoff, header_.e_phnum)) {
        if (segment.p_type == type)
            flags.push_back(segment.p_flags);
    }
    return flags;
}

uint64_t Elf::section_size(const std::string &name) const
{
    for (const Elf64_Shdr &s : sections_) {
        if (text(sections_.at(header_.e_shstrndx), s.sh_name) == name)
            return s.sh_size;
    }
    return 0;
}

uint32_t Elf::word_at(uint64_t address) const
{
    for (const auto &segment : table<Elf64_Phdr>(header_.e_phoff, header_.e_phnum)) {
        if (segment.p_type == PT_LOAD && address >= segment.p_vaddr &&
            address - segment.p_vaddr < segment.p_filesz)
            return table<uint32_t>(address - segment.p_vaddr + segment.p_offset, 1).front();
    }
    throw std::runtime_error("the object has nothing at that address");
}

uint32_t Elf::property(uint32_t type) const
{
    // A note's header and its owner, "GNU"; then properties: type, size, value, each padded to 8.
    constexpr uint64_t header_size = sizeof(Elf64_Nhdr) + 4;
    for (const Elf64_Shdr &s : sections_) {
        if (text(sections_.at(header_.e_shstrndx), s.sh_name) != ".note.gnu.property")
            continue;
        const auto words =
            table<uint32_t>(s.sh_offset + header_size, (s.sh_size - header_size) / 4);
        for (size_t i = 0; i + 2 < words.size(); i += 2 + (words[i + 1] + 7) / 8 * 2) {
            if (words[i] == type)
                return words[i + 2];
        }
    }
    return 0;
}

} // namespace vyt::test
