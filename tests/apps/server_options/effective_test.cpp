// Defends the options of the server program: every option can come from each source, the stronger source counts, and
// what is wrong is named with its place.
#include "msgbusd/options/effective.h"

#include "msgbusd/options/options.h"

#include <gmock/gmock.h>

#include <map>
#include <string>
#include <vector>

namespace {

using msgbusd::EffectiveSettings;
using msgbusd::FindOption;
using msgbusd::FromCommandLine;
using msgbusd::FromEnvironment;
using msgbusd::FromFile;
using msgbusd::GivenOptions;
using msgbusd::Option;
using msgbusd::OptionKind;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Texts = std::vector<std::string>;

GivenOptions Words(Texts words) {
    words.insert(words.begin(), "msgbusd");
    std::vector<const char*> pointers;
    for (const auto& word : words) {
        pointers.push_back(word.c_str());
    }
    const auto command = msgbusd::MakeCommand();
    command_line::Parse(*command, static_cast<int>(pointers.size()), pointers.data());
    return FromCommandLine(*command);
}

GivenOptions Variables(const Texts& variables) {
    std::vector<const char*> pointers;
    for (const auto& variable : variables) {
        pointers.push_back(variable.c_str());
    }
    pointers.push_back(nullptr);
    return FromEnvironment(pointers.data());
}

GivenOptions File(const std::string& text) {
    return FromFile("f", text);
}

EffectiveSettings Together(const std::string& file, const Texts& variables = {}, const Texts& words = {}) {
    return EffectiveSettings({File(file), Variables(variables), Words(words)});
}

Texts Shown(const EffectiveSettings& effective, const std::string& key) {
    return FindOption(key)->show(effective.Get());
}

/// A value that is not the default of the option, and what shows it then.
struct Sample {
    std::string value;
    std::string shown;
};

/// One for each option that is not a switch.
const std::map<std::string, Sample> Samples{
    {"mode", {"static", "static"}},
    {"hold-pushes", {"7", "7"}},
    {"drain-limit", {"7", "7"}},
    {"group", {"4711", "4711"}},
    {"retain", {"a*", "a*"}},
    {"log-level", {"bus=debug,server=error", "bus=debug,server=error"}},
    {"log-format", {"json", "json"}},
    {"monitor", {"127.0.0.1:7", "127.0.0.1:7"}},
    {"monitor-token-file", {"/t", "/t"}},
    {"limit", {"publishers=7", "publishers=7"}},
    {"slow-subscriber", {"x=drop-oldest:7", "x=drop-oldest:7"}},
};

TEST(ServerOptions, EachOption_CanComeFromEachSource) {
    for (const Option& option : msgbusd::Options()) {
        if (option.kind == OptionKind::Preset) {
            continue;
        }
        const bool isSwitch = option.kind == OptionKind::Switch;
        const auto sample = isSwitch ? Sample{"false", "false"} : Samples.at(option.key);
        const std::string flag = isSwitch ? "--no-" + option.key : "--" + option.key + '=' + sample.value;
        const bool needsMonitor = option.key == "monitor-token-file";
        const std::string monitor = needsMonitor ? "monitor = 127.0.0.1:1\n" : "";
        const EffectiveSettings fromFile = Together(monitor + option.key + " = " + sample.value);
        const EffectiveSettings fromVariable =
            Together(monitor, {msgbusd::VariableOf(option.key) + '=' + sample.value});
        const EffectiveSettings fromWord = Together(monitor, {}, {flag});
        const std::map<std::string, const EffectiveSettings*> all{{needsMonitor ? "f:2" : "f:1", &fromFile},
                                                                  {msgbusd::VariableOf(option.key), &fromVariable},
                                                                  {flag.substr(0, flag.find('=')), &fromWord}};
        for (const auto& [source, effective] : all) {
            EXPECT_THAT(effective->Mistakes(), IsEmpty()) << option.key;
            EXPECT_THAT(Shown(*effective, option.key), testing::Contains(sample.shown)) << option.key;
            EXPECT_THAT(effective->ToFile(), HasSubstr(option.key + " = " + sample.shown + "  # " + source + '\n'));
        }
        EXPECT_THAT(Shown(Together(""), option.key), testing::Not(testing::Contains(sample.shown))) << option.key;
    }
}

TEST(ServerOptions, TheFileThatIsPrinted_MakesTheSameSettings) {
    Texts words{"--monitor-token-file=/t # x", "--slow-subscriber=* =cut:3", "--retain= a "};
    for (const auto& [key, sample] : Samples) {
        if (key != "monitor-token-file") {
            words.push_back("--" + key + '=' + sample.value);
        }
    }
    const EffectiveSettings first = Together("placement = false", {"MSGBUSD_FLUSH_WAKE=no"}, words);
    ASSERT_THAT(first.Mistakes(), IsEmpty());
    const EffectiveSettings second = Together(first.ToFile());
    EXPECT_THAT(second.Mistakes(), IsEmpty());
    for (const Option& option : msgbusd::Options()) {
        EXPECT_EQ(option.show(first.Get()), option.show(second.Get())) << option.key;
    }
    const EffectiveSettings bare = Together("", {}, {"--bare"});
    EXPECT_THAT(Together(bare.ToFile()).Mistakes(), IsEmpty());
    EXPECT_FALSE(Together(bare.ToFile()).Get().isLimited);
}

TEST(ServerOptions, TheStrongerSource_Counts) {
    const std::string file = "log-level = error\nplacement = false\n";
    EXPECT_THAT(Shown(Together(file), "log-level"), ElementsAre("error"));
    EXPECT_THAT(Shown(Together(file, {"MSGBUSD_LOG_LEVEL=debug"}), "log-level"), ElementsAre("debug"));
    EXPECT_THAT(Shown(Together(file, {"MSGBUSD_LOG_LEVEL=debug"}, {"--log-level", "off"}), "log-level"),
                ElementsAre("off"));
    EXPECT_THAT(Shown(Together(file, {"MSGBUSD_PLACEMENT=on"}), "placement"), ElementsAre("true"));
    EXPECT_THAT(Shown(Together(file, {}, {"--no-placement=false"}), "placement"), ElementsAre("true"));
    EXPECT_THAT(Shown(Together("mode = static", {}, {"--dynamic"}), "mode"), ElementsAre("dynamic"));
    EXPECT_THAT(Shown(Together("monitor = 127.0.0.1:1", {}, {"--no-monitor"}), "monitor"), ElementsAre("false"));
    EXPECT_THAT(Shown(Together("monitor = false", {}, {"--no-monitor=false"}), "monitor"), ElementsAre("true"));
}

TEST(ServerOptions, ALevelForOneOrigin_LeavesTheDefaultOfTheOther) {
    EXPECT_THAT(Shown(Together("log-level = off", {}, {"--log-level=server=debug"}), "log-level"),
                ElementsAre("bus=warning,server=debug"));
}

TEST(ServerOptions, Lists_AddUpUntilAnEmptyValue) {
    const std::string file = "retain = a\nretain = b\n";
    EXPECT_THAT(Shown(Together(file, {"MSGBUSD_RETAIN=c d"}, {"--retain", "e"}), "retain"),
                ElementsAre("a", "b", "c", "d", "e"));
    EXPECT_THAT(Shown(Together(file, {}, {"--retain", "", "--retain=e"}), "retain"), ElementsAre("e"));
    const EffectiveSettings limits =
        Together("limit = publishers=5\nlimit = subscribers=6", {}, {"--limit=publishers=7"});
    EXPECT_EQ(limits.Get().limits.publishers, 7U);
    EXPECT_EQ(limits.Get().limits.subscribers, 6U);
    EXPECT_THAT(limits.ToFile(), HasSubstr("limit = publishers=7  # --limit\n"));
    EXPECT_THAT(limits.ToFile(), HasSubstr("limit = subscribers=6  # f:2\n"));
}

TEST(ServerOptions, Bare_SwitchesOffWhatTheSameSourceDoesNotName) {
    const EffectiveSettings bare = Together("account = true", {}, {"--bare", "--no-intake=false"});
    EXPECT_FALSE(bare.Get().account);
    EXPECT_FALSE(bare.Get().isLimited);
    EXPECT_TRUE(bare.Get().server.intake);
    EXPECT_THAT(bare.ToFile(), HasSubstr("account = false  # --bare\n"));
    EXPECT_TRUE(Together("bare = true", {}, {"--no-account=false"}).Get().account);
    EXPECT_TRUE(Together("bare = false").Get().account);
}

TEST(ServerOptions, VariablesOfThePlatform_AreTheirSwitches) {
    for (const Option& option : msgbusd::Options()) {
        if (option.platformVariable.empty()) {
            continue;
        }
        EXPECT_THAT(Shown(Together("", {option.platformVariable + "=off"}), option.key), ElementsAre("false"));
        EXPECT_THAT(Shown(Together("", {option.platformVariable + "=on"}), option.key), ElementsAre("true"));
        EXPECT_THAT(Shown(Together("", {option.platformVariable + "=off", msgbusd::VariableOf(option.key) + "=true"}),
                          option.key),
                    ElementsAre("true"));
    }
}

TEST(ServerOptions, WhatNeedsAPartThatIsOff_IsAMistakeUnlessAStrongerSourceSwitchedItOff) {
    EXPECT_THAT(Together("", {}, {"--no-limits", "--limit=publishers=5"}).Mistakes(),
                ElementsAre("--limit: 'limit' needs 'limits', which --no-limits switches off"));
    EXPECT_THAT(Together("limits = no", {}, {"--limit=publishers=5"}).Mistakes(),
                ElementsAre("--limit: 'limit' needs 'limits', which f:1 switches off"));
    EXPECT_THAT(Together("limit = publishers=5", {}, {"--bare"}).Mistakes(), IsEmpty());
    EXPECT_THAT(Together("retain = x\nnotices = no").Mistakes(),
                ElementsAre(HasSubstr("f:1: 'retain' needs 'notices'")));
    EXPECT_THAT(Together("retain = x\naccount = no").Mistakes(),
                ElementsAre(HasSubstr("f:1: 'retain' needs 'account'")));
    EXPECT_THAT(Together("hold-pushes = 5\nintake = no").Mistakes(),
                ElementsAre(HasSubstr("f:1: 'hold-pushes' needs 'intake'")));
    EXPECT_THAT(Together("hold-pushes = 0\nintake = no").Mistakes(), IsEmpty());
    EXPECT_THAT(Together("monitor = 127.0.0.1:1\naccount = no").Mistakes(),
                ElementsAre(HasSubstr("f:1: 'monitor' needs 'account'")));
    EXPECT_THAT(Together("monitor = true\naccount = no").Mistakes(), IsEmpty());
    EXPECT_THAT(Together("monitor-token-file = t").Mistakes(), ElementsAre(HasSubstr("f:1: a token file needs")));
    EXPECT_THAT(Together("monitor = 127.0.0.1:1\nmonitor-token-file = t", {}, {"--no-monitor"}).Mistakes(), IsEmpty());
    EXPECT_THAT(Together("slow-subscriber = x=drop-oldest\nparked-waits = no").Mistakes(),
                ElementsAre(HasSubstr("f:1: 'x=drop-oldest' needs 'parked-waits', which f:2")));
}

TEST(ServerOptions, AWrongValue_IsNamedWithItsPlace) {
    EXPECT_THAT(Together("\nlog-level = loud").Mistakes(),
                ElementsAre(HasSubstr("f:2: log-level: 'loud' is not a log level")));
    EXPECT_THAT(Together("", {"MSGBUSD_MODE=both"}).Mistakes(),
                ElementsAre(HasSubstr("MSGBUSD_MODE: 'both' is not a mode")));
    EXPECT_THAT(Together("", {}, {"--drain-limit", "-1"}).Mistakes(),
                ElementsAre(HasSubstr("--drain-limit: '-1' is not")));
    EXPECT_THAT(Together("", {}, {"--no-account=maybe"}).Mistakes(),
                ElementsAre("--no-account: 'maybe' must be true or false"));
    EXPECT_THAT(Together("", {}, {"--log-format=xml"}).Mistakes(), ElementsAre(HasSubstr("'xml' is not a log format")));
    EXPECT_THAT(Together("limit = cows=5").Mistakes(),
                ElementsAre(HasSubstr("f:1: limit: 'cows=5' is not NAME=NUMBER")));
    EXPECT_THAT(Together("monitor = 8.8.8.8:53").Mistakes(), testing::SizeIs(1));
    EXPECT_THAT(Together("mode = both", {}, {"--static"}).Mistakes(), testing::SizeIs(1))
        << "although it is overridden";
}

TEST(ServerOptions, KeysOfAFile_HaveToBeKnownAndOnce) {
    EXPECT_THAT(Together("log-levle = info").Mistakes(),
                ElementsAre("f:1: unknown key 'log-levle'; did you mean 'log-level'?"));
    EXPECT_THAT(Together("no-account = true").Mistakes(),
                ElementsAre("f:1: unknown key 'no-account'; a part is switched off by 'account = false'"));
    EXPECT_THAT(Together("ready-fd = 3").Mistakes(),
                ElementsAre("f:1: 'ready-fd' can only be given on the command line"));
    EXPECT_THAT(Together("mode = static\nmode = static").Mistakes(), ElementsAre("f:2: 'mode' is in line 1 already"));
    EXPECT_THAT(Together("zzz = 1\nmode\n").Mistakes(),
                testing::UnorderedElementsAre("f:1: unknown key 'zzz'", "f:2: 'mode' is not KEY = VALUE"));
}

TEST(ServerOptions, VariablesThatLookLikeOptions_AreNamed) {
    const char* const variables[]{"MSGBUSD_LOGLEVEL=info", "MSGBUSD_SERVICE_HOST=10.0.0.1",
                                  "MSGBUSD_CONFIG=f",      "MSGBUSD_MODE=static",
                                  "MSGBUSD_LIMTS=",        nullptr};
    EXPECT_THAT(msgbusd::UnknownVariables(variables),
                ElementsAre("the variable MSGBUSD_LOGLEVEL has no effect; did you mean MSGBUSD_LOG_LEVEL?"));
}

TEST(ServerOptions, WhatIsNotOnTheCommandLine_IsShownAsIfItWere) {
    EXPECT_EQ(Together("mode = static\nplacement = no\nmonitor = no", {"MSGBUSD_INTAKE=yes"}, {"--log-level=off"})
                  .AsCommandLine(),
              "--mode=static --no-monitor --no-intake=false --no-placement");
}

} // namespace
