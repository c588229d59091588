/* The register dump file: module status and the compressed register
 * window. */
#include <dirent.h>
#include <regex.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_device.hpp"
#include "log_expect.hpp"
#include "private_tmp.hpp"

#define LOGS "/opt/orvel/platform/logs"

namespace {

constexpr uint32_t filler = 0xDEADBEEFu;

/* What lh_register_dump_write writes for `desc`. */
std::string dump_text(const lh_device_desc *desc)
{
    char *text = nullptr;
    size_t length = 0;
    FILE *file = open_memstream(&text, &length);

    EXPECT_NE(file, nullptr);
    if (file == nullptr)
        return "";
    lh_register_dump_write(file, desc);
    EXPECT_EQ(fclose(file), 0);
    std::string content(text, length);
    free(text);
    return content;
}

/* What follows the register dump's header, or "" without one. */
std::string register_part(const std::string &text)
{
    static const std::string header = "\n----------- Register Dump -----------\n";
    size_t at = text.find(header);

    EXPECT_NE(at, std::string::npos) << "no register dump header";
    if (at == std::string::npos)
        return "";
    return text.substr(at + header.size());
}

/* The last `length` characters of `text`, or all of it if shorter. */
std::string tail(const std::string &text, size_t length)
{
    return text.size() < length ? text : text.substr(text.size() - length);
}

void assert_ends_with(const std::string &text, const std::string &end)
{
    ASSERT_GE(text.size(), end.size());
    ASSERT_EQ(tail(text, end.size()), end);
}

/* The names of the files in the log directory. */
std::vector<std::string> log_files()
{
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR *)> dir(opendir(LOGS), closedir);
    struct dirent *entry;

    EXPECT_NE(dir, nullptr) << LOGS;
    if (dir == nullptr)
        return names;
    while ((entry = readdir(dir.get())) != nullptr)
        if (entry->d_name[0] != '.')
            names.emplace_back(entry->d_name);
    return names;
}

/* Whether `name` is a dump file's name: the date and time it was
 * written. */
bool is_dump_name(const std::string &name)
{
    regex_t pattern;

    if (regcomp(&pattern,
                "^lark_hollow_dump__[A-Z][a-z]{2}-[0-9]{2}-[0-9]{4}__"
                "[0-9]{2}-[0-9]{2}-[0-9]{2}-(AM|PM)\\.log$",
                REG_EXTENDED | REG_NOSUB) != 0) {
        ADD_FAILURE() << "the dump name pattern does not compile";
        return false;
    }
    bool matches = regexec(&pattern, name.c_str(), 0, nullptr, 0) == 0;
    regfree(&pattern);
    return matches;
}

/* The one dump file of the log directory; its content in `text`, and the
 * file removed. */
void read_single_dump(std::string *text)
{
    std::vector<std::string> names = log_files();

    ASSERT_EQ(names.size(), 1u);
    ASSERT_TRUE(is_dump_name(names[0])) << names[0];
    std::string path = LOGS "/" + names[0];
    std::unique_ptr<char, void (*)(void *)> content(
        read_whole_file(path.c_str(), nullptr), free);
    unlink(path.c_str());
    ASSERT_NE(content, nullptr) << path;
    *text = content.get();
}

unsigned int reads_of_0x10c;

uint32_t count_reads_of_0x10c(reg_model *model, uint32_t offset,
                              uint32_t stored)
{
    (void)model;
    if (offset == 0x10C)
        reads_of_0x10c++;
    return stored;
}

} // namespace

class DumpTest : public PrivateDirsTest {
protected:
    void TearDown() override
    {
        if (IsSkipped())
            return;
        fake_device_remove();
    }
};

TEST_F(DumpTest, RunOfFillerIsOneLine)
{
    reg_model *model = fake_device_install(&lh_desc_base_two_pipes, 1);

    reg_model_store(model, 0x100, filler);
    reg_model_store(model, 0x104, filler);
    reg_model_store(model, 0x108, filler);
    reg_model_store(model, 0x10C, 0x1);
    std::string text = dump_text(&lh_desc_base_two_pipes);
    ASSERT_NE(register_part(text).find("0x000f8: 0x00000000\n"
                                       "0x000fc: 0x00000000\n"
                                       "0x00100-0x00108: 0xdeadbeef\n"
                                       "0x0010c: 0x00000001\n"
                                       "0x00110: 0x00000000\n"),
              std::string::npos);
    assert_ends_with(text, "0x2a0f8: 0x00000000\n0x2a0fc: 0x00000000\n");
}

TEST_F(DumpTest, EveryWordPrintedWhenNoFiller)
{
    fake_device_install(&lh_desc_lhx, 1);
    std::string registers = register_part(dump_text(&lh_desc_lhx));
    size_t lines = 0;

    for (char c : registers)
        lines += c == '\n';
    ASSERT_EQ(lines, 0x19800u / 4);
    ASSERT_EQ(registers.compare(0, 20, "0x00000: 0x00000000\n"), 0);
}

TEST_F(DumpTest, LoneFillerAtLastBaseWordClosesAtOnce)
{
    reg_model *model = fake_device_install(&lh_desc_base_two_pipes, 1);

    reg_model_store(model, 0x2A0FC, filler);
    std::string text = dump_text(&lh_desc_base_two_pipes);
    assert_ends_with(text,
                     "0x2a0f8: 0x00000000\n0x2a0fc-0x2a0fc: 0xdeadbeef\n");
}

TEST_F(DumpTest, RunReachingTheBaseEndStaysOpen)
{
    reg_model *model = fake_device_install(&lh_desc_base_two_pipes, 1);

    for (uint32_t offset = 0x2A0F0; offset < 0x2A100; offset += 4)
        reg_model_store(model, offset, filler);
    std::string text = dump_text(&lh_desc_base_two_pipes);
    assert_ends_with(text, "0x2a0ec: 0x00000000\n0x2a0f0-");
}

TEST_F(DumpTest, RunOpenAtTheEndOfTheLhxWindow)
{
    reg_model *model = fake_device_install(&lh_desc_lhx, 1);

    for (uint32_t offset = 0x19000; offset < 0x19800; offset += 4)
        reg_model_store(model, offset, filler);
    std::string text = dump_text(&lh_desc_lhx);
    assert_ends_with(text, "0x18ffc: 0x00000000\n0x19000-");
}

TEST_F(DumpTest, FillerWindowIsOneOpenRun)
{
    reg_model *model = fake_device_install(&lh_desc_lhx, 1);

    reg_model_fill(model, filler);
    std::string text = dump_text(&lh_desc_lhx);
    ASSERT_EQ(register_part(text), "0x00000-");
}

TEST_F(DumpTest, WordAfterARunIsReadAgain)
{
    reg_model *model = fake_device_install(&lh_desc_lhx, 1);

    reg_model_store(model, 0x108, filler);
    reg_model_store(model, 0x10C, 0x2);
    reg_model_store(model, 0x110, 0x3);
    model->on_read = count_reads_of_0x10c;
    reads_of_0x10c = 0;
    std::string text = dump_text(&lh_desc_lhx);
    ASSERT_EQ(reads_of_0x10c, 2u);
    ASSERT_NE(text.find("0x00104: 0x00000000\n"
                        "0x00108-0x00108: 0xdeadbeef\n"
                        "0x0010c: 0x00000002\n"
                        "0x00110: 0x00000003\n"),
              std::string::npos);
}

TEST_F(DumpTest, ModuleStatusOfTwoPipeBaseBoard)
{
    static const std::string expected =
        "\n----------- Module Status -----------\n"
        "module: global, pipe: 0, status: OK\n"
        "module: pcie, pipe: 0, status: OK\n"
        "module: ddr4, pipe: 0, status: OK\n"
        "module: ddr4, pipe: 1, status: OK\n"
        "module: caui, pipe: 0, status: OK\n"
        "module: caui, pipe: 1, status: FAILED\n"
        "module: nic, pipe: 0, status: OK\n"
        "module: nic, pipe: 1, status: OK\n"
        "module: ingress-pkt-parser, pipe: 0, status: OK\n"
        "module: ingress-pkt-parser, pipe: 1, status: OK\n"
        "module: ingress-pkt-classifier, pipe: 0, status: OK\n"
        "module: ingress-pkt-classifier, pipe: 1, status: OK\n"
        "module: ingress-pkt-processor, pipe: 0, status: OK\n"
        "module: ingress-pkt-processor, pipe: 1, status: OK\n"
        "module: egress-scheduler, pipe: 0, status: OK\n"
        "module: egress-scheduler, pipe: 1, status: FAILED\n"
        "\n----------- Register Dump -----------\n"
        "0x00000: 0x00000000\n";

    fake_device_install(&lh_desc_base_two_pipes, 1);
    lh_module_state[LH_MOD_CAUI][1].store(1);
    lh_module_state[LH_MOD_EGRESS_SCHEDULER][1].store(1);
    std::string text = dump_text(&lh_desc_base_two_pipes);
    ASSERT_EQ(text.substr(0, expected.size()), expected);
}

TEST_F(DumpTest, DumpFileIsNamedByTheTime)
{
    std::string text;

    fake_device_install(&lh_desc_lhx, 1);
    lh_register_dump();
    ASSERT_NO_FATAL_FAILURE(read_single_dump(&text));
    static const std::string head = "\n----------- Module Status -----------\n"
                                    "module: lhx-global, pipe: 0, status: OK\n";
    ASSERT_EQ(text.substr(0, head.size()), head);
    assert_ends_with(text, "0x197fc: 0x00000000\n");
}

TEST_F(DumpTest, DumpWithoutDeviceWritesNothing)
{
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=4388\n");
    lh_register_dump();
    EXPECT_EQ(log_files().size(), 0u);
    lh_pci_cache_reset();
}
