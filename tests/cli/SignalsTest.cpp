// The tool's signal table against the public header: every event type it declares, with the sample width its
// comment gives, and a configuration flag of its own for every signal. Parsing of --signals lists.
#include "tools/oltb/Signals.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace {

using namespace oltb::cli;

struct HeaderEventType {
    std::string name;
    int type;
    unsigned bits;
};

// The event types of api/oltb.h with the width in the comment behind each ("oltbEventPortA = 0, /* 16 */").
std::vector<HeaderEventType> eventTypesOfHeader() {
    std::ifstream header(OLTB_SOURCE_DIR "/api/oltb.h");
    std::vector<HeaderEventType> types;
    std::string text;
    while (std::getline(header, text)) {
        char name[64];
        int type = 0;
        unsigned bits = 0;
        if (std::sscanf(text.c_str(), " oltbEvent%63[A-Za-z0-9_] = %d , /* %u", name, &type, &bits) == 3 ||
            std::sscanf(text.c_str(), " oltbEvent%63[A-Za-z0-9_] = %d /* %u", name, &type, &bits) == 3) {
            types.push_back({name, type, bits});
        }
    }
    return types;
}

std::vector<std::string> namesOf(const std::vector<const SignalInfo*>& signals) {
    std::vector<std::string> names;
    for (const SignalInfo* signal : signals) {
        names.push_back(signal->name);
    }
    return names;
}

// Each header type once, with its width, its group from the type's base, and the head positions as such.
TEST(SignalTable, HoldsEveryEventTypeOfTheHeaderWithItsWidthAndGroupAndNoOther) {
    const auto headerTypes = eventTypesOfHeader();
    ASSERT_EQ(headerTypes.size(), 63U) << "the header could not be read";
    EXPECT_EQ(allSignals().size(), headerTypes.size());
    for (const HeaderEventType& expected : headerTypes) {
        const SignalInfo* signal = findSignalByType(expected.type);
        ASSERT_NE(signal, nullptr) << expected.name;
        EXPECT_EQ(signal->name, expected.name);
        EXPECT_EQ(signal->bitsPerSample, expected.bits) << expected.name;
        EXPECT_EQ(findSignalByName(expected.name), signal);
        EXPECT_EQ(signal->group, "Conf" + std::to_string(expected.type / 32)) << expected.name;
        EXPECT_STRNE(describeGroup(signal->group), "");
        EXPECT_EQ(isHeadPosition(signal->type), expected.type >= 32 && expected.type < 64) << expected.name;
    }
    EXPECT_EQ(findSignalByType(oltbEventTimeBase), nullptr);
    EXPECT_EQ(findSignalByType(27), nullptr);
}

TEST(SignalTable, EachSignalSelectsItsOwnConfigurationFlagAndClearsTheOthers) {
    oltbTraceBufferConfig_Struct config{};
    config.Version = 6;
    selectOnly(config, parseSignalList("all"));
    EXPECT_EQ(signalsIn(config).size(), 63U);
    for (const SignalInfo& signal : allSignals()) {
        selectOnly(config, {&signal});
        EXPECT_EQ(config.Version, 6U);
        EXPECT_TRUE(config.*signal.configFlag) << signal.name;
        EXPECT_EQ(namesOf(signalsIn(config)), std::vector<std::string>{signal.name});
    }
}

// Names in any case with blanks, group names and "all"; table order, each signal once.
TEST(SignalList, SelectsSignalsAndGroupsInTableOrderOnce) {
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {" label , head0txx,Gate,HEAD0TXY,gate", {"Gate", "Head0TxX", "Head0TxY", "Label"}},
        {"conf1", {"Head0TxX", "Head0TxY", "Head0TxZ", "Head0RxX", "Head0RxY", "Head0RxZ", "Head1TxX", "Head1TxY",
                   "Head1TxZ", "Head1RxX", "Head1RxY", "Head1RxZ"}},
    };
    for (const auto& [list, names] : cases) EXPECT_EQ(namesOf(parseSignalList(list)), names) << list;
    EXPECT_EQ(parseSignalList("Conf2,LaserPower0_8").size(), 10U);
    EXPECT_EQ(parseSignalList("ALL").size(), 63U);
}

TEST(SignalList, RejectsUnknownNamesAndEmptyLists) {
    for (const char* list : {"Gate,Head2TxX", "Gate,,nope", "Port", "Conf4", "", " ", ",", " , "}) {
        EXPECT_THROW(parseSignalList(list), UnknownSignalError) << '"' << list << '"';
    }
    try {
        parseSignalList("Gate,Head2TxX");
        FAIL();
    } catch (const UnknownSignalError& error) {
        EXPECT_EQ(std::string(error.what()), "unknown signal 'Head2TxX' (see: oltb signals)");
    }
}

}  // namespace
