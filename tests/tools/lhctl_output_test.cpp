/* lhctl's views without a daemon: JSON with names that need escaping, the
 * Prometheus text of label values that need escaping (read back by the
 * Python client's parser, as Prometheus' own tools would read it), and the
 * words lhctl prints for what the daemon reports. */
#include <stdint.h>
#include <stdio.h>

#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "lhctl.hpp"

namespace {

using namespace lhctl;

/* Prints each sample of each family the parser finds, labels sorted, as
 * Python's repr writes the strings. */
constexpr char kParse[] =
    "import sys\n"
    "from prometheus_client.parser import text_string_to_metric_families\n"
    "for f in text_string_to_metric_families(open(sys.argv[1]).read()):\n"
    "    for s in f.samples:\n"
    "        print(f.name, f.type, sorted(s.labels.items()), int(s.value))\n";

/* python3 -c kParse FILE, with text in FILE: its standard output. */
std::string parsed_by_python(const std::string &text)
{
    char path[] = "/tmp/lhctl_output_XXXXXX";
    int fd = mkstemp(path);
    std::string out;

    EXPECT_GE(fd, 0);
    if (fd < 0)
        return out;
    EXPECT_EQ(write(fd, text.data(), text.size()),
              static_cast<ssize_t>(text.size()));
    close(fd);
    std::string command = "/usr/bin/python3 -c '" + std::string(kParse) +
                          "' " + path + " 2>&1";
    FILE *p = popen(command.c_str(), "r");
    char buf[512];
    while (p != nullptr && fgets(buf, sizeof(buf), p) != nullptr)
        out += buf;
    EXPECT_EQ(p != nullptr ? pclose(p) : -1, 0) << out;
    unlink(path);
    return out;
}

TEST(LhctlJson, CounterNamesThatNeedEscaping)
{
    const Counters counters = {
        {"quote\"d", 1}, {"back\\slash", 2}, {"tab\tnew\nline", 3},
        {"ctl\x01", 4},  {"bad\xff", 5},     {"max", UINT64_MAX},
    };
    const std::string json = stats_json(3, 1, counters, true);

    EXPECT_EQ(json, "{\"module\":\"caui\",\"module_id\":3,\"pipe\":1,"
                    "\"counters\":{\"quote\\\"d\":1,\"back\\\\slash\":2,"
                    "\"tab\\tnew\\nline\":3,\"ctl\\u0001\":4,"
                    "\"bad\xef\xbf\xbd\":5,\"max\":18446744073709551615},"
                    "\"cleared\":true}\n");
    auto back = nlohmann::ordered_json::parse(json)["counters"];
    EXPECT_EQ(back["quote\"d"], 1u);
    EXPECT_EQ(back["tab\tnew\nline"], 3u);
    EXPECT_EQ(back["max"].get<uint64_t>(), UINT64_MAX);
}

TEST(LhctlJson, ModuleWithoutANameByItsId)
{
    EXPECT_EQ(modules_json({{20, 0, true}, {4, 1, false}}),
              "{\"modules\":[{\"id\":20,\"name\":\"20\",\"pipe\":0,"
              "\"state\":\"FAILED\"},{\"id\":4,\"name\":\"nic\",\"pipe\":1,"
              "\"state\":\"OK\"}]}\n");
    EXPECT_EQ(modules_text({{20, 0, true}}),
              "ID  NAME  PIPE  STATE\n20  20    0     FAILED\n");
}

TEST(LhctlJson, LoopbackAndQos)
{
    EXPECT_EQ(loopback_json(0, 0),
              "{\"pipe\":0,\"mask\":0,\"types\":[\"disable-all\"]}\n");
    EXPECT_EQ(loopback_json(1, 0x24),
              "{\"pipe\":1,\"mask\":36,\"types\":[\"pma-near\",\"type-5\"]}\n");
    EXPECT_EQ(qos_json(1, 9, 7),
              "{\"pipe\":1,\"profile\":9,\"priority\":\"7\"}\n");
}

Snapshot one_caui(Counters counters)
{
    return {{{3, 0, false}, {20, 1, true}}, {{0, true}}, {std::move(counters), {}}};
}

TEST(LhctlMetrics, LabelValuesThatNeedEscaping)
{
    const std::string text = snapshot_metrics(
        one_caui({{"quote\"d", 1}, {"back\\slash", 2}, {"new\nline", 3}}));

    EXPECT_EQ(text,
              "# HELP pellin_module_failed 1 when the module instance has "
              "reported a fatal hardware error (FAILED), 0 when OK.\n"
              "# TYPE pellin_module_failed gauge\n"
              "pellin_module_failed{module=\"caui\",pipe=\"0\"} 0\n"
              "pellin_module_failed{module=\"20\",pipe=\"1\"} 1\n"
              "# HELP pellin_pipe_up 1 when the traffic pipe is up, 0 when "
              "it is down.\n"
              "# TYPE pellin_pipe_up gauge\n"
              "pellin_pipe_up{pipe=\"0\"} 1\n"
              "# HELP pellin_block_counter_total Statistics counter of a "
              "hardware block, named by its register source.\n"
              "# TYPE pellin_block_counter_total counter\n"
              "pellin_block_counter_total{module=\"caui\",pipe=\"0\","
              "counter=\"quote\\\"d\"} 1\n"
              "pellin_block_counter_total{module=\"caui\",pipe=\"0\","
              "counter=\"back\\\\slash\"} 2\n"
              "pellin_block_counter_total{module=\"caui\",pipe=\"0\","
              "counter=\"new\\nline\"} 3\n");
    EXPECT_EQ(parsed_by_python(text),
              "pellin_module_failed gauge [('module', 'caui'), ('pipe', "
              "'0')] 0\n"
              "pellin_module_failed gauge [('module', '20'), ('pipe', '1')] "
              "1\n"
              "pellin_pipe_up gauge [('pipe', '0')] 1\n"
              "pellin_block_counter counter [('counter', 'quote\"d'), "
              "('module', 'caui'), ('pipe', '0')] 1\n"
              "pellin_block_counter counter [('counter', 'back\\\\slash'), "
              "('module', 'caui'), ('pipe', '0')] 2\n"
              "pellin_block_counter counter [('counter', 'new\\nline'), "
              "('module', 'caui'), ('pipe', '0')] 3\n");
}

/* Prometheus keeps every sample as a double: counters print as integers
 * up to 16 digits, above that as the double the scraper stores. */
TEST(LhctlMetrics, CounterValuesAsTheScraperStoresThem)
{
    const std::string text = snapshot_metrics(
        one_caui({{"c", 12884901924ull}, {"d", 9007199254740992ull},
                  {"e", UINT64_MAX}}));

    EXPECT_NE(text.find("counter=\"c\"} 12884901924\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("counter=\"d\"} 9007199254740992\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("counter=\"e\"} 1.844674407370955e+19\n"),
              std::string::npos)
        << text;
}

TEST(LhctlNames, NumbersAndWords)
{
    EXPECT_EQ(parse_u32("PIPE", "0x1F"), 31u);
    EXPECT_EQ(parse_u32("PIPE", "010"), 10u);
    EXPECT_EQ(parse_module("lhx-nic"), 12u);
    EXPECT_EQ(parse_timeout_ms("0.0001"), 1);
    EXPECT_EQ(priority_name(2), "high");
    try {
        parse_u32("VALUE", "+1");
        ADD_FAILURE() << "+1 taken";
    } catch (const Failure &f) {
        EXPECT_EQ(f.exit(), Exit::usage);
        EXPECT_STREQ(f.what(), "bad VALUE \"+1\"");
    }
}

} // namespace
