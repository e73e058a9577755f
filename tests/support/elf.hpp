// A shared object of this machine's kind (64 bits), as the dynamic linker sees it.
#pragma once

#include <cstdint>
#include <elf.h>
#include <string>
#include <vector>

namespace vyt::test {

struct elf_symbol {
    std::string name;
    uint64_t address; // from where the object lies in memory
    uint64_t size;
    bool defined;
    bool function;
    bool zero_at_load; // it has no contents in the file
};

class Elf {
  public:
    // Throws when the file cannot be read or is no such object.
    explicit Elf(const std::string &path);

    // What it shows to others, and what it wants from others.
    std::vector<elf_symbol> dynamic_symbols() const;
    // What the debugger sees; nothing in a stripped object.
    std::vector<elf_symbol> all_symbols() const;
    // The values of one kind of entry in its dynamic section (DT_FLAGS ...); none: it has none.
    std::vector<uint64_t> dynamic_values(int64_t tag) const;
    // The same for entries that are texts (DT_SONAME, DT_NEEDED).
    std::vector<std::string> dynamic_texts(int64_t tag) const;
    // The flags (PF_X ...) of its segments of one type (PT_LOAD ...).
    std::vector<uint32_t> segment_flags(uint32_t type) const;
    // The size of a section in bytes; 0 when there is none.
    uint64_t section_size(const std::string &name) const;
    // The instruction, or another word of 32 bits, at an address of the loaded object.
    uint32_t word_at(uint64_t address) const;
    // The bits of a GNU property (GNU_PROPERTY_AARCH64_FEATURE_1_AND ...); 0 when it has none.
    uint32_t property(uint32_t type) const;

  private:
    template <class T>
    std::vector<T> table(uint64_t offset, uint64_t count) const;
    const Elf64_Shdr *section(uint32_t type) const;
    std::string text(const Elf64_Shdr &texts, uint64_t offset) const;
    std::vector<elf_symbol> symbols(uint32_t type) const;

    std::string bytes_;
    Elf64_Ehdr header_;
    std::vector<Elf64_Shdr> sections_;
};

} // namespace vyt::test
