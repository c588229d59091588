/* IDPROM cache, controller type, descriptor choice, CSR device. */
#include <stdint.h>
#include <stdlib.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "board_stub.hpp"
#include "lh_device.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "owned.hpp"
#include "private_tmp.hpp"

/* Every case starts without an IDPROM file, with nothing cached, on
 * hardware (not the QRN simulation), expecting the library's lines. */
class PciTest : public PrivateTmpTest {
protected:
    void SetUp() override
    {
        PrivateTmpTest::SetUp();
        if (IsSkipped())
            return;
        lh_pci_cache_reset();
        stub_qrn_sim = 0;
        stub_qrn_sim_calls = 0;
        write_text_file(LH_IDPROM_CACHE_PATH, nullptr);
        log_expect_start(&lh_log_file);
    }

    void TearDown() override
    {
        if (IsSkipped())
            return;
        log_expect_stop();
        lh_desc_base_two_pipes.found = 0;
        lh_pci_cache_reset();
    }

    /* With the IDPROM file `file`, `key` is found with the value
     * `expected` (null: found without a value). */
    static void assert_idprom_value(const char *file, const char *key,
                                    const char *expected)
    {
        char untouched[] = "untouched";
        char *value = untouched;

        SCOPED_TRACE(format_text("key %s in \"%s\"", key, file));
        write_text_file(LH_IDPROM_CACHE_PATH, file);
        ASSERT_EQ(lh_idprom_cache_get(key, &value), LH_IDPROM_OK);
        ASSERT_NE(value, untouched);
        pellin::Malloced<char> owned(value);
        if (expected == nullptr) {
            ASSERT_EQ(value, nullptr);
        } else {
            ASSERT_NE(value, nullptr);
            ASSERT_STREQ(value, expected);
        }
    }
};

TEST_F(PciTest, IdpromPlainAndQuotedValues)
{
    assert_idprom_value("CONTROLLER_TYPE=4358\n", "CONTROLLER_TYPE", "4358");
    assert_idprom_value("CONTROLLER_TYPE=\"4358\"\n", "CONTROLLER_TYPE",
                        "4358");
    assert_idprom_value("A=1\nCONTROLLER_TYPE=4361\nB=2\n", "CONTROLLER_TYPE",
                        "4361");
    assert_idprom_value("CONTROLLER_TYPE=4358", "CONTROLLER_TYPE", "4358");
}

TEST_F(PciTest, IdpromKeepsWhatIsNotAQuotePair)
{
    assert_idprom_value("K=\"\n", "K", "\"");
    assert_idprom_value("K=\"x\n", "K", "\"x");
    assert_idprom_value("K=\"\"\n", "K", "");
    assert_idprom_value("K= 12 \r\n", "K", " 12 \r");
    /* strtok skips leading separators, so "=K=v" still names K. */
    assert_idprom_value("=K=v\n", "K", "v");
    /* The first matching line wins. */
    assert_idprom_value("K=first\nK=second\n", "K", "first");
}

TEST_F(PciTest, IdpromEmptyValueIsFoundAndNull)
{
    assert_idprom_value("CONTROLLER_TYPE=\n", "CONTROLLER_TYPE", nullptr);
    assert_idprom_value("CONTROLLER_TYPE=", "CONTROLLER_TYPE", nullptr);
}

TEST_F(PciTest, IdpromBlanksAroundEqualsDoNotMatch)
{
    char *value = nullptr;

    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE = 4358\n");
    ASSERT_EQ(lh_idprom_cache_get("CONTROLLER_TYPE", &value),
              LH_IDPROM_NOT_FOUND);
    ASSERT_EQ(value, nullptr);
    write_text_file(LH_IDPROM_CACHE_PATH, "controller_type=4358\n");
    ASSERT_EQ(lh_idprom_cache_get("CONTROLLER_TYPE", &value),
              LH_IDPROM_NOT_FOUND);
}

TEST_F(PciTest, IdpromRefusesBadArguments)
{
    char untouched[] = "untouched";
    char *value = untouched;

    write_text_file(LH_IDPROM_CACHE_PATH, "K=1\n");
    ASSERT_EQ(lh_idprom_cache_get(nullptr, &value), LH_IDPROM_BAD_ARGUMENT);
    ASSERT_EQ(lh_idprom_cache_get("", &value), LH_IDPROM_BAD_ARGUMENT);
    ASSERT_STREQ(value, "untouched");
    ASSERT_EQ(lh_idprom_cache_get("K", nullptr), LH_IDPROM_BAD_ARGUMENT);
}

TEST_F(PciTest, IdpromMissingFile)
{
    char untouched[] = "untouched";
    char *value = untouched;

    ASSERT_EQ(lh_idprom_cache_get("CONTROLLER_TYPE", &value),
              LH_IDPROM_NO_FILE);
    ASSERT_EQ(value, nullptr);
}

TEST_F(PciTest, ControllerTypeIsDecimal)
{
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=4358\n");
    ASSERT_EQ(lh_get_controller_type(), 0x1106);
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=\"4390\"\n");
    ASSERT_EQ(lh_get_controller_type(), 0x1126);
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=0x1106\n");
    ASSERT_EQ(lh_get_controller_type(), 0);
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=\n");
    ASSERT_EQ(lh_get_controller_type(), 0);
    write_text_file(LH_IDPROM_CACHE_PATH, "OTHER=4358\n");
    ASSERT_EQ(lh_get_controller_type(), 0);
}

/* The descriptor chosen for a controller type, on hardware and on the QRN
 * simulation. */
struct MapCase {
    const char *name;
    const char *idprom;
    int qrn_sim;
    lh_device_desc *expected; /* null: result 0 and no descriptor */
    unsigned int qrn_sim_calls;
    const char *found_line;
};

#define FOUND(type) "Informational - pci get map, found controller type " type

const MapCase map_cases[] = {
    { "Type4358", "CONTROLLER_TYPE=4358\n", 0, &lh_desc_base_two_pipes, 0,
      FOUND("0x1106") },
    { "Type4358QrnSim", "CONTROLLER_TYPE=4358\n", 1, &lh_desc_base_two_pipes,
      0, FOUND("0x1106") },
    { "Type4358Quoted", "CONTROLLER_TYPE=\"4358\"\n", 0,
      &lh_desc_base_two_pipes, 0, FOUND("0x1106") },
    { "Type4361", "CONTROLLER_TYPE=4361\n", 0, &lh_desc_base_one_pipe, 0,
      FOUND("0x1109") },
    { "Type4361QrnSim", "CONTROLLER_TYPE=4361\n", 1, &lh_desc_base_one_pipe,
      0, FOUND("0x1109") },
    { "Type4362", "CONTROLLER_TYPE=4362\n", 0, &lh_desc_base_one_pipe, 0,
      FOUND("0x110a") },
    { "Type4362QrnSim", "CONTROLLER_TYPE=4362\n", 1, &lh_desc_base_one_pipe,
      0, FOUND("0x110a") },
    { "Type4388", "CONTROLLER_TYPE=4388\n", 0, nullptr, 1, FOUND("0x1124") },
    { "Type4388QrnSim", "CONTROLLER_TYPE=4388\n", 1, &lh_desc_base_two_pipes,
      1, FOUND("0x1124") },
    { "Type4389", "CONTROLLER_TYPE=4389\n", 0, nullptr, 1, FOUND("0x1125") },
    { "Type4389QrnSim", "CONTROLLER_TYPE=4389\n", 1, &lh_desc_base_two_pipes,
      1, FOUND("0x1125") },
    { "Type4390", "CONTROLLER_TYPE=4390\n", 0, &lh_desc_lhx, 1,
      FOUND("0x1126") },
    { "Type4390QrnSim", "CONTROLLER_TYPE=4390\n", 1, &lh_desc_base_two_pipes,
      1, FOUND("0x1126") },
    { "Type4391", "CONTROLLER_TYPE=4391\n", 0, &lh_desc_lhx, 1,
      FOUND("0x1127") },
    { "Type4391QrnSim", "CONTROLLER_TYPE=4391\n", 1, &lh_desc_base_two_pipes,
      1, FOUND("0x1127") },
};

class PciMapTest : public PciTest,
                   public ::testing::WithParamInterface<MapCase> {};

TEST_P(PciMapTest, MapChoiceForEveryControllerType)
{
    const MapCase &c = GetParam();
    lh_device_desc *desc = nullptr;
    uint32_t count = 0;

    stub_qrn_sim = c.qrn_sim;
    write_text_file(LH_IDPROM_CACHE_PATH, c.idprom);
    ASSERT_EQ(lh_pci_get_map(&desc, &count), 0);
    ASSERT_EQ(desc, c.expected);
    ASSERT_EQ(count, c.expected == nullptr ? 0u : 1u);
    ASSERT_EQ(stub_qrn_sim_calls, c.qrn_sim_calls);
    expect_log(LOG_INFO, c.found_line);
    expect_no_more_logs();
}

INSTANTIATE_TEST_SUITE_P(
    Types, PciMapTest, ::testing::ValuesIn(map_cases),
    [](const ::testing::TestParamInfo<MapCase> &info) {
        return std::string(info.param.name);
    });

TEST_F(PciTest, MapUnknownControllerType)
{
    lh_device_desc *desc = nullptr;
    uint32_t count = 0;

    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=4359\n");
    ASSERT_EQ(lh_pci_get_map(&desc, &count), -1);
    ASSERT_EQ(desc, nullptr);
    expect_log(LOG_INFO, FOUND("0x1107"));
    expect_log(LOG_CRIT, "PCI - pci get map, unknown controller type 0x1107");
    expect_no_more_logs();
}

TEST_F(PciTest, MapHexTextIsUnknownTypeZero)
{
    lh_device_desc *desc = nullptr;
    uint32_t count = 0;

    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=0x1106\n");
    ASSERT_EQ(lh_pci_get_map(&desc, &count), -1);
    expect_log(LOG_INFO, FOUND("0x0000"));
    expect_log(LOG_CRIT, "PCI - pci get map, unknown controller type 0x0000");
    expect_no_more_logs();
}

TEST_F(PciTest, MapMissingFileIsReadAgainNextCall)
{
    lh_device_desc *desc = nullptr;
    uint32_t count = 0;

    ASSERT_EQ(lh_pci_get_map(&desc, &count), -1);
    expect_log(LOG_INFO, FOUND("0x0000"));
    expect_log(LOG_CRIT, "PCI - pci get map, unknown controller type 0x0000");
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=4358\n");
    ASSERT_EQ(lh_pci_get_map(&desc, &count), 0);
    ASSERT_EQ(desc, &lh_desc_base_two_pipes);
    expect_log(LOG_INFO, FOUND("0x1106"));
    /* A known type is remembered: no further read, no further line. */
    write_text_file(LH_IDPROM_CACHE_PATH, nullptr);
    ASSERT_EQ(lh_pci_get_map(&desc, &count), 0);
    ASSERT_EQ(desc, &lh_desc_base_two_pipes);
    expect_no_more_logs();
}

TEST_F(PciTest, MapNullArguments)
{
    lh_device_desc *desc = nullptr;
    uint32_t count = 0;

    ASSERT_EQ(lh_pci_get_map(nullptr, &count), -1);
    ASSERT_EQ(lh_pci_get_map(&desc, nullptr), -1);
    expect_log(LOG_ERR, "Null pointer - pci get map");
    expect_log(LOG_ERR, "Null pointer - pci get map");
    expect_no_more_logs();
}

TEST_F(PciTest, CsrDeviceNullArgument)
{
    ASSERT_EQ(lh_pci_get_csr_device(nullptr), -1);
    expect_log(LOG_ERR, "Null pointer - pci get csr device");
    expect_no_more_logs();
}

TEST_F(PciTest, CsrDevice1124OnHardwareFails)
{
    lh_device_desc *desc = nullptr;

    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=4388\n");
    ASSERT_EQ(lh_pci_get_csr_device(&desc), -1);
    ASSERT_EQ(desc, nullptr);
    expect_log(LOG_INFO, FOUND("0x1124"));
    expect_no_more_logs();
}

TEST_F(PciTest, CsrDeviceNotFoundWhenNotMapped)
{
    lh_device_desc *desc = &lh_desc_lhx;

    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=4358\n");
    ASSERT_EQ(lh_pci_get_csr_device(&desc), 0);
    ASSERT_EQ(desc, nullptr);
    expect_log(LOG_INFO, FOUND("0x1106"));
    expect_log(LOG_DEBUG, "Control Status Register device not found");
    /* Nothing is cached: the next call looks again. */
    ASSERT_EQ(lh_pci_get_csr_device(&desc), 0);
    expect_log(LOG_DEBUG, "Control Status Register device not found");
    expect_no_more_logs();
}

TEST_F(PciTest, CsrDeviceFoundIsCachedAndLoggedOnce)
{
    lh_device_desc *desc = nullptr;

    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=4358\n");
    lh_desc_base_two_pipes.found = 1;
    ASSERT_EQ(lh_pci_get_csr_device(&desc), 0);
    ASSERT_EQ(desc, &lh_desc_base_two_pipes);
    expect_log(LOG_INFO, FOUND("0x1106"));
    expect_log(LOG_DEBUG, "Found CSR device - Control Status, type (0)");
    desc = nullptr;
    ASSERT_EQ(lh_pci_get_csr_device(&desc), 0);
    ASSERT_EQ(desc, &lh_desc_base_two_pipes);
    expect_no_more_logs();
}
