#include "PolicyCheck.h"

#include <gmock/gmock.h>

#include <algorithm>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "ParseBudget.h"
#include "device_test.h"
#include "vconf.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::Eq;
using testing::IsEmpty;
using zol::CheckPolicy;
using zol::EPolicyFinding;
using zol::TSPolicyFinding;

const char* const kExpiry = "<zol_expired_time time='60'/>";
const char* const kRule = "<zols key='db/rule' condition='IS' type='INT' intvalue='3'/>";

/// A document that gives no other finding than its items do. They begin at line 2.
std::string Document(const std::string& items) {
    return "<zolitem>" + std::string(kExpiry) + kRule + "\n" + items + "</zolitem>";
}

/// "line:column severity name".
std::vector<std::string> Shown(const std::vector<TSPolicyFinding>& findings) {
    std::vector<std::string> shown;
    for (const TSPolicyFinding& finding : findings) {
        shown.push_back(std::to_string(finding.line) + ":" + std::to_string(finding.column) +
                        (finding.isError ? " error " : " warning ") + NameOf(finding.kind));
    }
    return shown;
}

std::vector<std::string> Check(const std::string& xml) {
    return Shown(CheckPolicy(xml));
}

/// The text of each finding and, in brackets, its hint.
std::vector<std::string> Texts(const std::string& xml, const zol::TypeOfKey& types = {}) {
    std::vector<std::string> texts;
    for (const TSPolicyFinding& finding : CheckPolicy(xml, types)) {
        texts.push_back(finding.text + (finding.hint.empty() ? "" : " (" + finding.hint + ")"));
    }
    return texts;
}

std::string Rule(const std::string& attributes) {
    return Document("<zols key='db/key' " + attributes + "/>");
}

std::string Monitor(const std::string& attributes) {
    return Document("<monitor " + attributes + "/>");
}

struct TSCase {
    const char* attributes;
    const char* text;
};

class PolicyCheck : public DeviceTest {};

TEST_F(PolicyCheck, FindsNothingInAGoodPolicyAndLogsNothing) {
    EXPECT_THAT(Check(Document("<monitor kind='3' method='32'/>")), IsEmpty());
    EXPECT_TRUE(CheckPolicy("<a").size() == 1 && CheckPolicy("<a></b>").size() == 2);
    EXPECT_EQ(Logged(""), 0);
}

TEST_F(PolicyCheck, TellsWhereADocumentIsNotWellFormedAndWhatStandsBefore) {
    EXPECT_THAT(Check("<zolitem>\n  <zols/>\n  <zols></zolitem>"),
                ElementsAre("2:3 error dropped", "3:3 error dropped", "3:11 error refused"));
    EXPECT_THAT(Texts("\n<?xml?><zolitem/>"),
                ElementsAre("not well-formed: XML or text declaration not at start of entity"));
}

TEST_F(PolicyCheck, CountsColumnsInCharactersAndTabsAsOne) {
    EXPECT_THAT(Check(Document("<!-- \xC3\xA4\xE2\x82\xAC -->\t<zols/>")), ElementsAre("2:13 error dropped"));
}

TEST_F(PolicyCheck, RefusesWhatIsBeyondALimit) {
    EXPECT_THAT(Texts(std::string(zol::kMaxPolicyBytes + 1, ' ')), ElementsAre("longer than 4194304 bytes"));
    std::string many = "<zolitem ";
    for (int i = 0; i <= zol::kMaxAttributes; ++i) {
        many += "a" + std::to_string(i) + "='' ";
    }
    EXPECT_THAT(Texts(many + "/>"), ElementsAre(testing::HasSubstr("more attributes")));
    std::string declarations = "<!DOCTYPE a [";
    for (int i = 0; i <= zol::kMaxDeclarations; ++i) {
        declarations += "<!ENTITY e" + std::to_string(i) + " ''>";
    }
    EXPECT_THAT(Texts(declarations + "]><a/>").at(0), testing::HasSubstr("declarations"));
}

TEST_F(PolicyCheck, TellsADocumentThatIsCutShort) {
    const std::string whole = Document("");
    EXPECT_THAT(Check(whole.substr(0, whole.size() - 3)), ElementsAre("2:1 warning cut-short"));
    EXPECT_THAT(Check("<zolitem>" + std::string(kRule)), ElementsAre("1:70 warning cut-short"));
}

TEST_F(PolicyCheck, TellsWhenNothingIsWatched) {
    const std::vector<std::pair<std::string, const char*>> cases{
        {"", "the document has no element"},
        {" \n", "the document has no element"},
        {"<zolitem/>",
         "no item: the document is taken for a set of commands and not stored (add a zols item)"},
        {"<zolitem><monitor kind='3' method='32'/></zolitem>",
         "monitors without a zols item do nothing: the document is taken for a set of commands and not "
         "stored "
         "(add a zols item)"},
        {"<zolitem><zols/></zolitem>",
         "no item is left; the document is stored all the same, in place of the one before it"}};
    for (const auto& [xml, why] : cases) {
        EXPECT_THAT(Texts(xml), Contains(Eq("nothing is watched: " + std::string(why)))) << xml;
    }
    EXPECT_THAT(Check("<zolitem><zols/><monitor kind='3' method='32'/></zolitem>"),
                testing::Not(Contains("1:1 error nothing-watched")));
    EXPECT_THAT(Check("<zolitem><zols/><monitor kind='2' method='21' id='i' name='n'/></zolitem>"),
                Contains("1:1 error nothing-watched"));
    EXPECT_THAT(Check("  "), ElementsAre("1:1 error nothing-watched"));
}

TEST_F(PolicyCheck, SaysWhyARuleIsDropped) {
    const std::vector<TSCase> cases{
        {"type='INT' intvalue='1'", "condition is missing (one of IS, NOT, GREATER, LESS, BETWEEN)"},
        {"condition='is' type='INT' intvalue='1'", "condition 'is' is unknown (did you mean IS?)"},
        {"condition='OVER' type='INT'",
         "condition 'OVER' is unknown (one of IS, NOT, GREATER, LESS, BETWEEN)"},
        {"condition='IS' intvalue='1'", "type is missing (one of INT, STRING)"},
        {"condition='IS' type='STRNG'", "type 'STRNG' is unknown (did you mean STRING?)"},
        {"condition='LESS' type='INT'", "LESS compares with intvalue, which is missing"},
        {"condition='IS' type='INT' intvalue='-1'",
         "IS compares with intvalue, which is -1, and that stands for \"not given\" (BETWEEN with "
         "greater='-2' "
         "and less='0' holds for -1 alone)"},
        {"condition='GREATER' type='INT' greater='10'",
         "GREATER compares with intvalue, which is missing (intvalue='10' instead of greater)"},
        {"condition='LESS' type='INT' less='10'",
         "LESS compares with intvalue, which is missing (intvalue='10' instead of less)"},
        {"condition='BETWEEN' type='INT'", "BETWEEN needs a bound other than -1 (give it greater and less)"},
        {"condition='LESS' type='STRING' strvalue='x'", "a STRING cannot be compared with LESS (IS or NOT)"},
        {"condition='IS' type='STRING'", "strvalue is missing"},
        {"condition='IS' type='STRING' strvalue='null'",
         "strvalue is 'null', and that stands for \"not given\""}};
    for (const auto& [attributes, text] : cases) {
        EXPECT_THAT(Check(Rule(attributes)), ElementsAre("2:1 error dropped")) << attributes;
        EXPECT_THAT(Texts(Rule(attributes)), ElementsAre("dropped: " + std::string(text))) << attributes;
    }
    EXPECT_THAT(Texts(Rule("condition='IS' type='INT' intvalue='x'")),
                ElementsAre("intvalue 'x' is no number and counts as not given",
                            "dropped: IS compares with intvalue, which is no number"));
}

TEST_F(PolicyCheck, SaysWhyAMonitorIsDropped) {
    const std::vector<TSCase> cases{{"method='31'", "kind is missing (1 app install, 3 remote pairing)"},
                                    {"kind='7'", "kind 7 is unknown (1 app install, 3 remote pairing)"},
                                    {"kind='1' method='21' id='i' name='n'", "kind 1 has method 11, not 21"},
                                    {"kind='2' method='11' id='i' name='n'", "kind 2 has method 21, not 11"},
                                    {"kind='3'", "kind 3 has method 31 or 32, and none is given"},
                                    {"kind='1' method='11' name='n'", "id is missing"},
                                    {"kind='1' method='11' id='' name='n'", "id is empty"},
                                    {"kind='1' method='11' id='i'", "name is missing"}};
    for (const auto& [attributes, text] : cases) {
        EXPECT_THAT(Check(Monitor(attributes)), ElementsAre("2:1 error dropped")) << attributes;
        EXPECT_THAT(Texts(Monitor(attributes)), ElementsAre("dropped: " + std::string(text))) << attributes;
    }
}

TEST_F(PolicyCheck, ARuleWithoutAKeyIsAnErrorAndWatchesNothing) {
    EXPECT_THAT(Check("<zolitem>\n<zol_expired_time time='9'/><zols condition='IS' type='INT' "
                      "intvalue='1'/></zolitem>"),
                ElementsAre("1:1 error nothing-watched", "2:29 error no-key"));
}

TEST_F(PolicyCheck, NamesTheNearestKnownElementAndAttribute) {
    EXPECT_THAT(Texts(Document("<zol/>")), ElementsAre("element 'zol' means nothing (did you mean zols?)"));
    EXPECT_THAT(Texts(Document("<zols key='k' condition='IS' type='INT' intvalue='1' tvalue=''/>")),
                ElementsAre("attribute 'tvalue' of zols means nothing (did you mean intvalue?)"))
        << "of two as near the first";
    EXPECT_THAT(Texts(Document("<policies/>")), ElementsAre("element 'policies' means nothing"));
    EXPECT_THAT(Texts(Rule("condition='IS' type='INT' intvalue='1' Valu='1' greatr='1'")),
                ElementsAre("attribute 'Valu' of zols means nothing",
                            "attribute 'greatr' of zols means nothing (did you mean greater?)"));
    EXPECT_THAT(Check(Document("<zol/><zols key='k' condition='NOT' type='STRING' strvalue='s' x='1'/>")),
                ElementsAre("2:1 warning unknown-element", "2:7 warning unknown-attribute"));
}

TEST_F(PolicyCheck, ReadsItemsInsideAnUnknownElementLikeOthers) {
    EXPECT_THAT(Check("<a>" + std::string(kExpiry) + kRule + "<zols/></a>"),
                ElementsAre("1:1 warning unknown-element", "1:93 error dropped"));
}

TEST_F(PolicyCheck, ADeclaredPrefixIsNoAttribute) {
    EXPECT_THAT(Check(Rule("condition='IS' type='INT' intvalue='1' xmlns:a='urn:a' xmlns=''")), IsEmpty());
    EXPECT_THAT(Check(Rule("condition='IS' type='INT' intvalue='1' xmlns='urn:a'")),
                ElementsAre("2:1 warning unknown-attribute"));
}

TEST_F(PolicyCheck, TellsNamesInOtherLettersAndOtherPlaces) {
    EXPECT_THAT(Check(Document("<ZOLS KEY='k' condition='IS' type='INT' intvalue='1'/>")),
                ElementsAre("2:1 warning letter-case", "2:1 warning letter-case"));
    EXPECT_THAT(Check(Document("<zolitem>\n" + std::string(kExpiry) + "</zolitem>")),
                ElementsAre("2:1 warning misplaced", "3:1 warning misplaced", "3:1 warning expiry"));
    EXPECT_THAT(Check(kRule), ElementsAre("1:1 warning misplaced", "1:1 warning expiry"));
}

TEST_F(PolicyCheck, TellsNumbersThatAreReadAsOtherNumbers) {
    const std::vector<std::pair<const char*, const char*>> cases{
        {"7x", "is read as 7"},   {"2147483648", "is read as 2147483647"},
        {"1.5", "is read as 1"},  {"-3000000000", "is read as -2147483648"},
        {"0x10", "is read as 0"}, {"99999999999999999999", "is read as 2147483647"}};
    for (const auto& [value, what] : cases) {
        const std::string attributes =
            "condition='BETWEEN' type='INT' greater='5' less='15' intvalue='" + std::string(value) + "'";
        EXPECT_THAT(Texts(Rule(attributes)), ElementsAre("intvalue '" + std::string(value) + "' " + what +
                                                         " (a whole number from -2147483648 to 2147483647)"));
    }
    for (const char* value : {"7", " 7 ", "+7", "007", "-2147483648", "2147483647", "-0"}) {
        EXPECT_THAT(Check(Rule("condition='NOT' type='INT' intvalue='" + std::string(value) + "'")),
                    IsEmpty())
            << value;
    }
    EXPECT_THAT(Texts(Rule("condition='NOT' type='INT' intvalue='+-7'")),
                Contains("intvalue '+-7' is no number and counts as not given"));
}

TEST_F(PolicyCheck, TellsWhatIsWrongWithTheExpiry) {
    const std::vector<std::pair<std::string, std::vector<std::string>>> cases{
        {"",
         {"zol_expired_time is missing: the policy expires at once (add <zol_expired_time "
          "time=\"2592000\"/> for thirty days)"}},
        {"<zol_expired_time/>", {"time is missing: the policy expires at once"}},
        {"<zol_expired_time time='0'/>", {"time '0': the policy expires at once (seconds)"}},
        {"<zol_expired_time time='-5'/>",
         {"time '-5' is read as 4294967291 (a whole number from 0 to 4294967295)"}},
        {"<zol_expired_time time='4294967296'/>",
         {"time '4294967296' is read as 4294967295 (a whole number from 0 to 4294967295)"}},
        {"<zol_expired_time time='soon'/>",
         {"time 'soon' is read as 0 (a whole number from 0 to 4294967295)",
          "time 'soon': the policy expires at once (seconds)"}},
        {"<zol_expired_time time='9'/>\n<zol_expired_time time='8'/>",
         {"this zol_expired_time counts, not the one in line 1"}}};
    for (const auto& [element, texts] : cases) {
        EXPECT_EQ(Texts("<zolitem>" + element + kRule + "</zolitem>"), texts);
    }
}

TEST_F(PolicyCheck, TellsRangesThatNothingFits) {
    const std::vector<std::pair<const char*, std::vector<std::string>>> cases{
        {"condition='BETWEEN' greater='5' less='6'", {"never a hit: no integer lies between 5 and 6"}},
        {"condition='BETWEEN' greater='15' less='5'",
         {"never a hit: no integer lies between 15 and 5 (greater is the lower bound, less the upper one)"}},
        {"condition='BETWEEN' greater='5'",
         {"less is not given and compared as -1", "never a hit: no integer lies between 5 and -1"}},
        {"condition='BETWEEN' greater='x' less='5'",
         {"greater 'x' is no number and counts as not given", "greater is not given and compared as -1"}},
        {"condition='BETWEEN' greater='-1' less='5'",
         {"greater is -1, which stands for \"not given\", and compared as -1"}},
        {"condition='GREATER' intvalue='2147483647'", {"never a hit: no integer is greater than 2147483647"}},
        {"condition='LESS' intvalue='-2147483648'", {"never a hit: no integer is less than -2147483648"}},
        {"condition='GREATER' intvalue='7' greater='7'",
         {"greater is ignored: GREATER compares with intvalue"}},
        {"condition='LESS' intvalue='7' less='7'", {"less is ignored: LESS compares with intvalue"}},
        {"condition='BETWEEN' greater='5' less='7'", {}},
        {"condition='BETWEEN' greater='-2147483648' less='2147483647'", {}},
        {"condition='GREATER' intvalue='2147483646'", {}},
        {"condition='IS' intvalue='2147483647' greater='1'", {}}};
    for (const auto& [attributes, texts] : cases) {
        EXPECT_EQ(Texts(Rule("type='INT' " + std::string(attributes))), texts) << attributes;
    }
}

TEST_F(PolicyCheck, TellsAKeyThatAnEarlierItemJudges) {
    const std::string dropped = "<zols key='db/rule'/>\n";
    const std::string again = "<zols key='db/rule' condition='IS' type='STRING' strvalue='x'/>";
    EXPECT_THAT(
        Texts(Document(again)),
        ElementsAre("a change of key 'db/rule' is judged by the item in line 1 alone, by this one only "
                    "when the policy is applied"));
    EXPECT_THAT(Check("<zolitem>" + std::string(kExpiry) + dropped + again + "</zolitem>"),
                ElementsAre("1:39 error dropped"));
}

TEST_F(PolicyCheck, TellsMonitorsThatAnEarlierOneReplaces) {
    const std::string pairing = "<monitor kind='3' method='32'/>\n";
    const std::string install =
        "<monitor kind='1' method='11' id='i' name='n' duration='9' repetition='2'/>\n";
    EXPECT_THAT(Texts(Document(pairing + pairing + install + install)),
                ElementsAre("ignored: kind 3 is monitored by the item in line 2",
                            "ignored: this id is monitored by the item in line 4"));
    EXPECT_THAT(Check(Document("<monitor kind='3' method='9'/>" + pairing)),
                ElementsAre("2:1 error dropped"));
}

TEST_F(PolicyCheck, TellsCountsAndPeriodsThatCannotMeanWhatTheySay) {
    const std::string remote = "kind='3' method='31' ";
    const std::string install = "kind='1' method='11' id='i' name='n' ";
    const std::vector<std::pair<std::string, std::vector<std::string>>> cases{
        {remote + "repetition='1' duration='5'", {"repetition 1: every event is a hit"}},
        {remote + "repetition='0'", {"repetition 0: every event is a hit"}},
        {install, {"repetition is missing and counts as 0: every event is a hit"}},
        {install + "repetition='2'", {"duration 0: only events of the same second fall into one period"}},
        {install + "repetition='2' duration='-3'", {"duration -3: no two events ever fall into one period"}},
        {install + "repetition='2' duration='35791395'", {"duration 35791395 is held at 2147483647 seconds"}},
        {install + "repetition='2' duration='35791394'", {}},
        {remote + "repetition='10' duration='1'",
         {"never a hit: 10 events, 11 seconds apart, do not fit into duration 1 (duration is in minutes, the "
          "ignore time reserve1 in seconds)"}},
        {remote + "repetition='13' duration='1' reserve1='4'", {}},
        {remote + "repetition='14' duration='1' reserve1='4'",
         {"never a hit: 14 events, 5 seconds apart, do not fit into duration 1 (duration is in minutes, the "
          "ignore time reserve1 in seconds)"}},
        {remote + "repetition='3' duration='9' reserve1='-4'",
         {"reserve1 '-4' makes an ignore time of 10 seconds"}},
        {remote + "repetition='3' duration='9' reserve1='4s'",
         {"reserve1 '4s' makes an ignore time of 4 seconds"}},
        {remote + "repetition='3' duration='9' reserve1='null'", {}},
        {"kind='3' method='32' repetition='1' reserve1='x'", {}},
        {"kind='2' method='21' id='i' name='n'",
         {"kind 2 is accepted, but nothing monitors application launches"}},
        {install + "repetition='2' duration='5' id2=''",
         {"attribute 'id2' of monitor means nothing (did you mean id?)"}}};
    for (const auto& [attributes, texts] : cases) {
        EXPECT_EQ(Texts(Monitor(attributes)), texts) << attributes;
    }
    const std::string longest(127, 'i');
    const std::string rest = " kind='1' method='11' name='n' duration='9' repetition='2'";
    EXPECT_THAT(Texts(Monitor("id='" + longest + "'" + rest)), IsEmpty());
    EXPECT_THAT(Texts(Monitor("id='" + longest + "i'" + rest)),
                ElementsAre("only the first 127 bytes of id are used"));
}

TEST_F(PolicyCheck, TellsRulesOnTheDaemonsOwnKeys) {
    const auto check = [](const std::string& key) {
        return Texts(Document("<zols key='" + key + "' condition='NOT' type='STRING' strvalue=''/>"));
    };
    EXPECT_THAT(check("db/zol/send_zol_files_path").at(0), testing::HasSubstr("it loops"));
    EXPECT_THAT(check("db/private/zol/policy_time"), ElementsAre("the daemon itself writes this key"));
}

TEST_F(PolicyCheck, TellsAnItemThatIsNotOfTheTypeOfItsKey) {
    const std::map<std::string, int> store{
        {"db/int", VCONF_TYPE_INT}, {"db/text", VCONF_TYPE_STRING}, {"db/switch", VCONF_TYPE_BOOL}};
    const zol::TypeOfKey types = [&](const std::string& key) {
        const auto found = store.find(key);
        return found != store.end() ? found->second : int{VCONF_TYPE_NONE};
    };
    const auto check = [&](const std::string& key, const std::string& rest) {
        return Texts(Document("<zols key='" + key + "' condition='IS' " + rest + "/>"), types);
    };
    const std::string number = "type='INT' intvalue='1'";
    const std::string text = "type='STRING' strvalue='1'";
    EXPECT_THAT(check("db/int", number), IsEmpty());
    EXPECT_THAT(check("db/text", text), IsEmpty());
    EXPECT_THAT(check("db/none", text), IsEmpty());
    EXPECT_THAT(check("db/text", number),
                ElementsAre("type is INT, but key 'db/text' in this machine's store is a text"));
    EXPECT_THAT(check("db/int", text),
                ElementsAre("type is STRING, but key 'db/int' in this machine's store is an integer"));
    EXPECT_THAT(check("db/switch", number),
                ElementsAre("type is INT, but key 'db/switch' in this machine's store is a boolean, which is "
                            "never compared"));
}

TEST_F(PolicyCheck, ListsNoMoreThanItSaysAndKeepsTheErrors) {
    constexpr std::size_t kMore = 5;
    std::string items;
    for (std::size_t i = 0; i < zol::kMaxPolicyFindings + kMore; ++i) {
        items += "<a/>";
    }
    const std::vector<TSPolicyFinding> findings = CheckPolicy(Document(items + "\n<zols/>"));
    ASSERT_EQ(findings.size(), zol::kMaxPolicyFindings + 2);
    EXPECT_EQ(findings.back().text, "5 more warnings are not listed");
    EXPECT_FALSE(findings.back().isError);
    EXPECT_TRUE(findings[zol::kMaxPolicyFindings].isError);
}

TEST_F(PolicyCheck, CountsErrorsThatItDoesNotListAsErrors) {
    std::string items;
    for (std::size_t i = 0; i < zol::kMaxPolicyFindings + 3; ++i) {
        items += "<zols/>";
    }
    const std::vector<TSPolicyFinding> findings = CheckPolicy(Document(items));
    const auto more = std::find_if(findings.begin(), findings.end(), [](const TSPolicyFinding& each) {
        return each.text == "3 more errors are not listed";
    });
    ASSERT_NE(more, findings.end());
    EXPECT_TRUE(more->isError);
}

TEST_F(PolicyCheck, CutsLongQuotesBetweenCharacters) {
    std::string name;
    for (int i = 0; i < 50; ++i) {
        name += "\xC3\xA4";
    }
    EXPECT_EQ(CheckPolicy(Document("<b" + name + "/>")).at(0).text,
              "element 'b" + name.substr(0, 78) + "...' means nothing");
}

TEST_F(PolicyCheck, PlacesWhatAnEntityHoldsAtTheReference) {
    EXPECT_THAT(Check("<!DOCTYPE a [<!ENTITY e '<zols/>'>]>\n" + Document("\n  &e;")),
                ElementsAre("4:3 error dropped"));
}

}  // namespace
