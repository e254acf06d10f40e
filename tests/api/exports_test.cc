// The shipped libvexatool64.so defines exactly the ten ipc_ functions in its
// dynamic symbol table: nothing of the internals or of the C++ runtime leaks.
#include <elf.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::vector<char> read_all(const char* path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

template <typename T>
bool read_at(const std::vector<char>& image, size_t offset, T* out) {
    if (offset > image.size() || image.size() - offset < sizeof(T))
        return false;
    std::memcpy(out, image.data() + offset, sizeof(T));
    return true;
}

// Names of the symbols the library defines and exports (global or weak).
std::set<std::string> defined_dynamic_symbols(const std::vector<char>& image) {
    std::set<std::string> names;
    Elf64_Ehdr header{};
    if (!read_at(image, 0, &header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_ident[EI_CLASS] != ELFCLASS64) {
        ADD_FAILURE() << "not a 64-bit ELF file";
        return names;
    }
    std::vector<Elf64_Shdr> sections(header.e_shnum);
    for (size_t i = 0; i < sections.size(); ++i) {
        if (!read_at(image, header.e_shoff + i * header.e_shentsize, &sections[i]))
            return names;
    }
    for (const Elf64_Shdr& section : sections) {
        if (section.sh_type != SHT_DYNSYM || section.sh_link >= sections.size())
            continue;
        const Elf64_Shdr& strings = sections[section.sh_link];
        for (size_t off = 0; off + sizeof(Elf64_Sym) <= section.sh_size; off += sizeof(Elf64_Sym)) {
            Elf64_Sym symbol{};
            if (!read_at(image, section.sh_offset + off, &symbol))
                break;
            int binding = ELF64_ST_BIND(symbol.st_info);
            if (symbol.st_shndx == SHN_UNDEF || (binding != STB_GLOBAL && binding != STB_WEAK)) {
                continue;
            }
            size_t at = strings.sh_offset + symbol.st_name;
            if (at >= image.size())
                continue;
            names.insert(
                std::string(image.data() + at, strnlen(image.data() + at, image.size() - at)));
        }
    }
    return names;
}

TEST(Exports, ExactlyTheTenIpcFunctions) {
    std::vector<char> image = read_all(VEXA_SHIPPED_LIBRARY);
    ASSERT_FALSE(image.empty()) << VEXA_SHIPPED_LIBRARY;
    const std::set<std::string> expected = {
        "ipc_init_server",  "ipc_uninit_server",    "ipc_run_test",    "ipc_send_command",
        "ipc_kill_client",  "ipc_set_su_file_path", "ipc_init_client", "ipc_init_client2",
        "ipc_send_message", "ipc_uninit_client"};
    std::set<std::string> found = defined_dynamic_symbols(image);
    // Sanitizer builds add their own interface symbols to every module.
    for (auto it = found.begin(); it != found.end();) {
        it = (it->rfind("__asan", 0) == 0 || it->rfind("__ubsan", 0) == 0 ||
              it->rfind("__tsan", 0) == 0 || it->rfind("__sanitizer", 0) == 0)
                 ? found.erase(it)
                 : std::next(it);
    }
    EXPECT_EQ(found, expected);
}

}  // namespace
