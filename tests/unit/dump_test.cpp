/* Part 2.6: the register dump file: module status and the compressed
 * register window. */
#include <dirent.h>
#include <regex.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "cmocka_all.h"
#include "fake_device.hpp"
#include "log_expect.hpp"
#include "private_tmp.hpp"

#define FILLER 0xDEADBEEFu
#define LOGS "/opt/orvel/platform/logs"

static char *dump_text(const lh_device_desc *desc)
{
    char *text = NULL;
    size_t length = 0;
    FILE *file = open_memstream(&text, &length);

    assert_non_null(file);
    lh_register_dump_write(file, desc);
    assert_int_equal(fclose(file), 0);
    return text;
}

static const char *register_part(const char *text)
{
    static const char header[] = "\n----------- Register Dump -----------\n";
    const char *part = strstr(text, header);

    assert_non_null(part);
    return part + strlen(header);
}

static void assert_ends_with(const char *text, const char *end)
{
    size_t length = strlen(text), end_length = strlen(end);

    assert_true(length >= end_length);
    assert_string_equal(text + length - end_length, end);
}

static void test_run_of_filler_is_one_line(void **state)
{
    struct reg_model *model = fake_device_install(&lh_desc_base_two_pipes, 1);
    char *text;

    (void)state;
    reg_model_store(model, 0x100, FILLER);
    reg_model_store(model, 0x104, FILLER);
    reg_model_store(model, 0x108, FILLER);
    reg_model_store(model, 0x10C, 0x1);
    text = dump_text(&lh_desc_base_two_pipes);
    assert_non_null(strstr(register_part(text),
                           "0x000f8: 0x00000000\n"
                           "0x000fc: 0x00000000\n"
                           "0x00100-0x00108: 0xdeadbeef\n"
                           "0x0010c: 0x00000001\n"
                           "0x00110: 0x00000000\n"));
    assert_ends_with(text, "0x2a0f8: 0x00000000\n0x2a0fc: 0x00000000\n");
    free(text);
}

static void test_every_word_printed_when_no_filler(void **state)
{
    char *text;
    size_t lines = 0;

    (void)state;
    fake_device_install(&lh_desc_lhx, 1);
    text = dump_text(&lh_desc_lhx);
    for (const char *at = register_part(text); *at != '\0'; at++)
        lines += *at == '\n';
    assert_int_equal(lines, 0x19800 / 4);
    assert_true(strncmp(register_part(text), "0x00000: 0x00000000\n", 20) ==
                0);
    free(text);
}

static void test_lone_filler_at_last_base_word_closes_at_once(void **state)
{
    struct reg_model *model = fake_device_install(&lh_desc_base_two_pipes, 1);
    char *text;

    (void)state;
    reg_model_store(model, 0x2A0FC, FILLER);
    text = dump_text(&lh_desc_base_two_pipes);
    assert_ends_with(text, "0x2a0f8: 0x00000000\n0x2a0fc-0x2a0fc: 0xdeadbeef\n");
    free(text);
}

static void test_run_reaching_the_base_end_stays_open(void **state)
{
    struct reg_model *model = fake_device_install(&lh_desc_base_two_pipes, 1);
    char *text;

    (void)state;
    for (uint32_t offset = 0x2A0F0; offset < 0x2A100; offset += 4)
        reg_model_store(model, offset, FILLER);
    text = dump_text(&lh_desc_base_two_pipes);
    assert_ends_with(text, "0x2a0ec: 0x00000000\n0x2a0f0-");
    free(text);
}

static void test_run_open_at_the_end_of_the_lhx_window(void **state)
{
    struct reg_model *model = fake_device_install(&lh_desc_lhx, 1);
    char *text;

    (void)state;
    for (uint32_t offset = 0x19000; offset < 0x19800; offset += 4)
        reg_model_store(model, offset, FILLER);
    text = dump_text(&lh_desc_lhx);
    assert_ends_with(text, "0x18ffc: 0x00000000\n0x19000-");
    free(text);
}

static void test_filler_window_is_one_open_run(void **state)
{
    struct reg_model *model = fake_device_install(&lh_desc_lhx, 1);
    char *text;

    (void)state;
    reg_model_fill(model, FILLER);
    text = dump_text(&lh_desc_lhx);
    assert_string_equal(register_part(text), "0x00000-");
    free(text);
}

static unsigned int reads_of_0x10c;

static uint32_t count_reads_of_0x10c(struct reg_model *model,
                                     uint32_t offset, uint32_t stored)
{
    (void)model;
    if (offset == 0x10C)
        reads_of_0x10c++;
    return stored;
}

static void test_word_after_a_run_is_read_again(void **state)
{
    struct reg_model *model = fake_device_install(&lh_desc_lhx, 1);
    char *text;

    (void)state;
    reg_model_store(model, 0x108, FILLER);
    reg_model_store(model, 0x10C, 0x2);
    reg_model_store(model, 0x110, 0x3);
    model->on_read = count_reads_of_0x10c;
    reads_of_0x10c = 0;
    text = dump_text(&lh_desc_lhx);
    assert_int_equal(reads_of_0x10c, 2);
    assert_non_null(strstr(text, "0x00104: 0x00000000\n"
                                 "0x00108-0x00108: 0xdeadbeef\n"
                                 "0x0010c: 0x00000002\n"
                                 "0x00110: 0x00000003\n"));
    free(text);
}

static void test_module_status_of_two_pipe_base_board(void **state)
{
    static const char expected[] =
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
    char *text;

    (void)state;
    fake_device_install(&lh_desc_base_two_pipes, 1);
    atomic_store(&lh_module_state[LH_MOD_CAUI][1], 1);
    atomic_store(&lh_module_state[LH_MOD_EGRESS_SCHEDULER][1], 1);
    text = dump_text(&lh_desc_base_two_pipes);
    assert_int_equal(strncmp(text, expected, strlen(expected)), 0);
    free(text);
}

/* The one dump file of the directory, its content in *text. */
static void read_single_dump(char **text)
{
    regex_t pattern;
    DIR *dir = opendir(LOGS);
    struct dirent *entry;
    char path[512];
    int dumps = 0;

    assert_non_null(dir);
    assert_int_equal(
        regcomp(&pattern,
                "^lark_hollow_dump__[A-Z][a-z]{2}-[0-9]{2}-[0-9]{4}__"
                "[0-9]{2}-[0-9]{2}-[0-9]{2}-(AM|PM)\\.log$",
                REG_EXTENDED | REG_NOSUB),
        0);
    while ((entry = readdir(dir)) != NULL) {
        if (entry->d_name[0] == '.')
            continue;
        assert_int_equal(regexec(&pattern, entry->d_name, 0, NULL, 0), 0);
        snprintf(path, sizeof(path), LOGS "/%s", entry->d_name);
        dumps++;
    }
    closedir(dir);
    regfree(&pattern);
    assert_int_equal(dumps, 1);
    *text = read_whole_file(path, NULL);
    assert_non_null(*text);
    unlink(path);
}

static void test_dump_file_is_named_by_the_time(void **state)
{
    char *text;

    (void)state;
    fake_device_install(&lh_desc_lhx, 1);
    lh_register_dump();
    read_single_dump(&text);
    assert_true(strncmp(text,
                        "\n----------- Module Status -----------\n"
                        "module: lhx-global, pipe: 0, status: OK\n",
                        78) == 0);
    assert_ends_with(text, "0x197fc: 0x00000000\n");
    free(text);
}

static void test_dump_without_device_writes_nothing(void **state)
{
    DIR *dir;
    struct dirent *entry;
    int files = 0;

    (void)state;
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=4388\n");
    lh_register_dump();
    dir = opendir(LOGS);
    assert_non_null(dir);
    while ((entry = readdir(dir)) != NULL)
        files += entry->d_name[0] != '.';
    closedir(dir);
    assert_int_equal(files, 0);
    lh_pci_cache_reset();
}

static int teardown(void **state)
{
    (void)state;
    fake_device_remove();
    return 0;
}

int main(void)
{
#define T(name) cmocka_unit_test_teardown(name, teardown)
    const struct CMUnitTest tests[] = {
        T(test_run_of_filler_is_one_line),
        T(test_every_word_printed_when_no_filler),
        T(test_lone_filler_at_last_base_word_closes_at_once),
        T(test_run_reaching_the_base_end_stays_open),
        T(test_run_open_at_the_end_of_the_lhx_window),
        T(test_filler_window_is_one_open_run),
        T(test_word_after_a_run_is_read_again),
        T(test_module_status_of_two_pipe_base_board),
        T(test_dump_file_is_named_by_the_time),
        T(test_dump_without_device_writes_nothing),
    };

    if (enter_private_dirs() != 0)
        return 1;
    return cmocka_run_group_tests(tests, NULL, NULL);
}
