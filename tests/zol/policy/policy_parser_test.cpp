#include "ZOLPolicyParser.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ParseBudget.h"
#include "PolicyAttributes.h"
#include "device_test.h"
#include "dlog.h"
#include "failing_parser.h"

namespace {

using zol::TCPolicyParser;
using zol::ZOLPolicy;

const char* const kExample =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<zolitem numofzol=\"1\">\n"
    "  <zol_expired_time time=\"2592000\"/>\n"
    "  <zols key=\"db/menu/picture/backlight\" condition=\"BETWEEN\" type=\"INT\" greater=\"5\" "
    "less=\"15\"/>\n"
    "  <monitor kind=\"3\" name=\"remote\" method=\"31\" duration=\"10\" repetition=\"5\"/>\n"
    "  <monitor kind=\"1\" id=\"org.kaldo.example\" name=\"Example\" method=\"11\" duration=\"60\" "
    "repetition=\"3\" reserve1=\"null\"/>\n"
    "</zolitem>\n";

class PolicyParser : public DeviceTest {
protected:
    /// Parses into a fresh policy and expects success.
    ZOLPolicy Parse(const std::string& xml) {
        ZOLPolicy policy;
        EXPECT_TRUE(m_parser.Parse(xml, policy)) << xml.substr(0, 200);
        return policy;
    }
    void ExpectRefused(const std::string& xml, const std::string& reason) {
        ZOLPolicy policy;
        EXPECT_FALSE(m_parser.Parse(xml, policy));
        ExpectErrors({reason});
        EXPECT_EQ(Logged("Parsing failed."), 1);
    }
    void ExpectAborted(const std::string& xml) {
        ExpectRefused(xml, "Error while parsing policy: parsing aborted");
    }

    TCPolicyParser m_parser;
};

TEST_F(PolicyParser, ReadsEveryAttributeOfTheExample) {
    const ZOLPolicy policy = Parse(kExample);

    EXPECT_EQ(policy.version, -1);
    EXPECT_EQ(policy.numOfZol, 1);
    EXPECT_EQ(policy.expiredTime, 2592000U);
    EXPECT_EQ(policy.text, "");
    ASSERT_EQ(policy.vconfMonitors.size(), 1U);
    EXPECT_EQ(policy.vconfMonitors[0].key, "db/menu/picture/backlight");
    EXPECT_EQ(policy.vconfMonitors[0].condition, "BETWEEN");
    EXPECT_EQ(policy.vconfMonitors[0].type, "INT");
    EXPECT_EQ(policy.vconfMonitors[0].greater, 5);
    EXPECT_EQ(policy.vconfMonitors[0].less, 15);
    ASSERT_EQ(policy.policyMonitors.size(), 2U);
    EXPECT_EQ(policy.policyMonitors[0].type, 3);
    EXPECT_EQ(policy.policyMonitors[0].name, "remote");
    EXPECT_EQ(policy.policyMonitors[0].method, 31);
    EXPECT_EQ(policy.policyMonitors[1].id, "org.kaldo.example");
    EXPECT_EQ(policy.policyMonitors[1].duration, 60);
    EXPECT_EQ(policy.policyMonitors[1].repetition, 3);
}

TEST_F(PolicyParser, ReadsTagsAndAttributesInAnyCase) {
    const ZOLPolicy policy = Parse("<ZOLS KEY=\"k\" Condition=\"IS\" TYPE=\"INT\" intvalue=\"3\"/>");

    ASSERT_EQ(policy.vconfMonitors.size(), 1U);
    EXPECT_EQ(policy.vconfMonitors[0].key, "k");
    EXPECT_EQ(policy.vconfMonitors[0].condition, "IS");
    EXPECT_EQ(policy.vconfMonitors[0].type, "INT");
    EXPECT_EQ(policy.vconfMonitors[0].intValue, 3);
}

TEST_F(PolicyParser, TakesAttributeValuesAsTheyAreWrittenUnknownWordsAndCodesToo) {
    const ZOLPolicy policy = Parse(
        "<a><zols key=\" K \" condition=\"is\" type=\"FLOAT\" strvalue=\"&lt;&#228;&gt;\"/>"
        "<monitor kind=\"77\" method=\"-5\"/></a>");

    EXPECT_EQ(policy.vconfMonitors.at(0).key, " K ");
    EXPECT_EQ(policy.vconfMonitors.at(0).condition, "is");
    EXPECT_EQ(policy.vconfMonitors.at(0).type, "FLOAT");
    EXPECT_EQ(policy.vconfMonitors.at(0).strValue, "<\xC3\xA4>");
    EXPECT_EQ(policy.policyMonitors.at(0).type, 77);
    EXPECT_EQ(policy.policyMonitors.at(0).method, -5);
}

TEST_F(PolicyParser, GivesAbsentAttributesTheirDefaults) {
    const ZOLPolicy policy = Parse("<a><zols/><monitor/></a>");

    EXPECT_EQ(policy.numOfZol, 0);
    EXPECT_EQ(policy.expiredTime, 0U);
    EXPECT_EQ(policy.vconfMonitors.at(0).key, "");
    EXPECT_EQ(policy.vconfMonitors.at(0).strValue, "null");
    EXPECT_EQ(policy.vconfMonitors.at(0).intValue, -1);
    EXPECT_EQ(policy.vconfMonitors.at(0).greater, -1);
    EXPECT_EQ(policy.vconfMonitors.at(0).less, -1);
    EXPECT_EQ(policy.policyMonitors.at(0).type, 0);
    EXPECT_EQ(policy.policyMonitors.at(0).id, "");
    EXPECT_EQ(policy.policyMonitors.at(0).name, "");
    EXPECT_EQ(policy.policyMonitors.at(0).method, 0);
    EXPECT_EQ(policy.policyMonitors.at(0).duration, 0);
    EXPECT_EQ(policy.policyMonitors.at(0).repetition, 0);
    EXPECT_EQ(policy.policyMonitors.at(0).reserve1, "null");
}

TEST_F(PolicyParser, AnExpiryIsHeldIn32BitsZeroWithoutDigitsAndTheLastOneCounts) {
    const std::vector<std::pair<const char*, std::uint64_t>> cases{
        {"<zol_expired_time time=\"4294967296\"/>", 4294967295},
        {"<zol_expired_time time=\"abc\"/>", 0},
        {"<a><zol_expired_time time=\"5\"/><zol_expired_time time=\"9\"/></a>", 9},
        {"<a><zol_expired_time time=\"5\"/><zol_expired_time/></a>", 0}};
    for (const auto& [xml, expired] : cases) {
        EXPECT_EQ(Parse(xml).expiredTime, expired) << xml;
    }
}

TEST_F(PolicyParser, TheLastItemCountWins) {
    EXPECT_EQ(Parse("<zolitem numofzol=\"4\"><zolitem/></zolitem>").numOfZol, 0);
    EXPECT_EQ(Parse("<zolitem><zolitem numofzol=\"12x\"/></zolitem>").numOfZol, 12);
}

TEST_F(PolicyParser, ANumberIsReadUpToItsFirstLetterAndHeldAtTheNearestLimit) {
    const ZOLPolicy policy = Parse(
        "<a><zols intvalue=\"7x\" greater=\"-99999999999\" less=\"2147483648\"/><zols intvalue=\"x7\"/>"
        "<monitor kind=\"4294967297\" duration=\"-2147483649\"/></a>");

    EXPECT_EQ(policy.vconfMonitors.at(0).intValue, 7);
    EXPECT_EQ(policy.vconfMonitors.at(0).greater, -2147483647 - 1);
    EXPECT_EQ(policy.vconfMonitors.at(0).less, 2147483647);
    EXPECT_EQ(policy.vconfMonitors.at(1).intValue, -1);
    EXPECT_EQ(policy.policyMonitors.at(0).type, 2147483647);
    EXPECT_EQ(policy.policyMonitors.at(0).duration, -2147483647 - 1);
}

TEST_F(PolicyParser, ItemsAreReadWhereverTheyStandAndInDocumentOrder) {
    const ZOLPolicy policy = Parse(
        "<a><zols key=\"1\"><b><zols key=\"2\"/></b></zols><monitor id=\"x\"><zols "
        "key=\"3\"/></monitor></a>");

    ASSERT_EQ(policy.vconfMonitors.size(), 3U);
    EXPECT_EQ(policy.vconfMonitors[0].key, "1");
    EXPECT_EQ(policy.vconfMonitors[1].key, "2");
    EXPECT_EQ(policy.vconfMonitors[2].key, "3");
    EXPECT_EQ(policy.policyMonitors.size(), 1U);
}

TEST_F(PolicyParser, TextInsideAnyElementIsIgnored) {
    const ZOLPolicy policy = Parse(
        "<zolitem numofzol=\"2\">1<zols key=\"k\">two<![CDATA[<zols key=\"no\"/>]]></zols>three"
        "<!-- <zols/> --></zolitem>");

    EXPECT_EQ(policy.numOfZol, 2);
    ASSERT_EQ(policy.vconfMonitors.size(), 1U);
    EXPECT_EQ(policy.vconfMonitors[0].strValue, "null");
    EXPECT_FALSE(fakes::dlog::Has("invalid parameters"));
}

TEST_F(PolicyParser, ADocumentWithoutVconfItemsGivesAnEmptyList) {
    for (const char* xml : {"", "<zolitem numofzol=\"0\"><monitor kind=\"3\"/></zolitem>",
                            "<policy><zolss key=\"a\"/><zol key=\"b\"/><m:zols xmlns:m=\"u\"/></policy>"}) {
        EXPECT_TRUE(Parse(xml).vconfMonitors.empty()) << xml;
        EXPECT_EQ(Parse(xml).numOfZol, 0) << xml;
    }
}

int CountOf(const std::string& text, const std::string& part) {
    int count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

TEST_F(PolicyParser, ADocumentCutAtAnyByteGivesExactlyTheTagsThatWereComplete) {
    std::string whole = kExample;
    whole.insert(whole.find("  <monitor"),
                 "<zols key=\"\xC3\xA4\xE2\x82\xAC\"/><!-- c --><![CDATA[d]]>&#65;");
    for (std::size_t length = 0; length <= whole.size(); ++length) {
        const std::string cut = whole.substr(0, length);
        const ZOLPolicy policy = Parse(cut);
        const int items = static_cast<int>(policy.vconfMonitors.size() + policy.policyMonitors.size());
        const int expiry = policy.expiredTime != 0 ? 1 : 0;
        ASSERT_EQ(items + expiry, CountOf(cut, "/>")) << cut;
    }
}

TEST_F(PolicyParser, MalformedTextFailsWithItsPlace) {
    ExpectRefused("<zolitem>\n<zols key=\"k\"></zolitem>",
                  "Error while parsing policy: mismatched tag, line: 2, col: 16");
}

TEST_F(PolicyParser, EveryKindOfMalformedTextFails) {
    for (const std::string& xml :
         {std::string("no xml"), std::string("<zols key=k/>"), std::string("<zols key=\"1\" key=\"2\"/>"),
          std::string("<a/><b/>"), std::string("<a>&unknown;</a>"), std::string("<a>\xFF</a>"),
          std::string("<zols key=\"<\"/>"), std::string("<a></b>"), std::string("<a>\x01</a>"),
          std::string("<?xml version=\"1.0\" encoding=\"KOI-42\"?><a/>"), std::string("<a>\0</a>", 8),
          std::string(4096, '\0')}) {
        ZOLPolicy policy;
        EXPECT_FALSE(m_parser.Parse(xml, policy)) << xml;
    }
}

TEST_F(PolicyParser, ItemsBeforeAnErrorStayInTheRecord) {
    ZOLPolicy policy;
    EXPECT_FALSE(m_parser.Parse("<a><zols key=\"1\"/><monitor/></b>", policy));

    EXPECT_EQ(policy.vconfMonitors.size(), 1U);
    EXPECT_EQ(policy.policyMonitors.size(), 1U);
}

TEST_F(PolicyParser, ASecondParseIntoOneRecordEmptiesOnlyTheVconfItems) {
    ZOLPolicy policy;
    EXPECT_TRUE(m_parser.Parse(kExample, policy));
    EXPECT_TRUE(m_parser.Parse("<zols key=\"new\"/>", policy));

    ASSERT_EQ(policy.vconfMonitors.size(), 1U);
    EXPECT_EQ(policy.vconfMonitors[0].key, "new");
    EXPECT_EQ(policy.policyMonitors.size(), 2U);
    EXPECT_EQ(policy.numOfZol, 1);
    EXPECT_EQ(policy.expiredTime, 2592000U);
}

TEST_F(PolicyParser, EveryItemReachesTheSystemLogAsAnError) {
    Parse(kExample);

    ExpectErrors(
        {"MONITORINFO_CNT [1]",
         "key[db/menu/picture/backlight], condition[BETWEEN], type[INT], intValue[-1], strValue[null], "
         "greater[5], less[15]",
         "MONITOR_TYPE[3] MONITOR_ID[] MONITOR_NAME[remote] MONITOR_METHOD[31] MONITOR_DURATION[10] "
         "MONITOR_REPETITION[5] reserve1[null]",
         "clear current element (zols)", "clear current element ()"});
    EXPECT_EQ(Logged("clear current element (monitor)"), 2);
    EXPECT_EQ(fakes::dlog::Find("MONITORINFO_CNT [1]").buffer, DLOG_BUFFER_SYSTEM);
}

std::string Times(int count, const std::string& text) {
    std::string all;
    for (int time = 0; time < count; ++time) {
        all += text;
    }
    return all;
}

TEST_F(PolicyParser, TenThousandItemsAreReadInOrder) {
    std::string items;
    for (int item = 0; item < 10000; ++item) {
        items += "<zols key=\"db/k" + std::to_string(item) + "\"/>";
    }
    // A document's text pays for its items.
    const ZOLPolicy policy = Parse("<a>" + items + std::string(items.size(), ' ') + "</a>");

    ASSERT_EQ(policy.vconfMonitors.size(), 10000U);
    EXPECT_EQ(policy.vconfMonitors[9999].key, "db/k9999");
}

TEST_F(PolicyParser, DeepNestingIsReadToItsInnermostItem) {
    const ZOLPolicy policy = Parse(Times(60000, "<a>") + "<zols key=\"deep\"/>" + Times(60000, "</a>"));

    ASSERT_EQ(policy.vconfMonitors.size(), 1U);
    EXPECT_EQ(policy.vconfMonitors[0].key, "deep");
    EXPECT_EQ(Parse(Times(60000, "<a>")).vconfMonitors.size(), 0U);
}

TEST_F(PolicyParser, ATextLongerThanTheLimitIsRefused) {
    std::string xml = "<zols/>";
    xml.resize(zol::kMaxPolicyBytes, ' ');
    Parse(xml);

    xml += ' ';
    ExpectRefused(xml, "Policy of 4194305 bytes refused, at most 4194304 are read");
}

TEST_F(PolicyParser, AnEntityOfTheDocumentIsPutIn) {
    const ZOLPolicy policy = Parse("<!DOCTYPE a [<!ENTITY k \"db/key\">]><zols key=\"&k;/1\"/>");

    EXPECT_EQ(policy.vconfMonitors.at(0).key, "db/key/1");
}

TEST_F(PolicyParser, EntitiesThatMultiplyAreRefused) {
    std::string dtd = "<!ENTITY e0 \"0123456789012345678901234567890123456789\">";
    for (int level = 1; level <= 12; ++level) {
        dtd += "<!ENTITY e" + std::to_string(level) + " \"";
        for (int times = 0; times < 10; ++times) {
            dtd += "&e" + std::to_string(level - 1) + ";";
        }
        dtd += "\">";
    }
    ExpectRefused("<!DOCTYPE a [" + dtd + "]><zols key=\"&e12;\"/>", "Error while parsing policy: ");
}

TEST_F(PolicyParser, AnEntityInsideItselfIsRefused) {
    ExpectRefused("<!DOCTYPE a [<!ENTITY a \"&b;\"><!ENTITY b \"&a;\">]><zols key=\"&a;\"/>",
                  "Error while parsing policy: recursive entity reference");
}

TEST_F(PolicyParser, ALongChainOfEntitiesIsRefusedBeforeItCanExhaustTheStack) {
    std::string dtd = "<!ENTITY e0 \"x\">";
    for (int level = 1; level < 100000; ++level) {
        dtd += "<!ENTITY e" + std::to_string(level) + " \"&e" + std::to_string(level - 1) + ";\">";
    }
    ExpectAborted("<!DOCTYPE a [" + dtd + "]><a>&e99999;</a>");
}

TEST_F(PolicyParser, ManyAttributeDeclarationsAreRefused) {
    std::string dtd;
    for (int attribute = 0; attribute < 100000; ++attribute) {
        dtd += "<!ATTLIST a b" + std::to_string(attribute) + " CDATA #IMPLIED>";
    }
    ExpectAborted("<!DOCTYPE a [" + dtd + "]><a/>");
}

std::string ElementWithAttributes(int count) {
    std::string xml = "<zols key=\"k\"";
    for (int attribute = 1; attribute < count; ++attribute) {
        xml += " a" + std::to_string(attribute) + "=\"\"";
    }
    return xml + "/>";
}

TEST_F(PolicyParser, AnElementHasRoomForAThousandAttributes) {
    EXPECT_EQ(Parse(ElementWithAttributes(1000)).vconfMonitors.at(0).key, "k");

    ExpectAborted(ElementWithAttributes(1001));
}

TEST_F(PolicyParser, ItemsThatOutgrowTheirTextAreRefused) {
    ExpectAborted("<a>" + Times(55000, "<zols/>"));
}

TEST_F(PolicyParser, NestingThatOutgrowsItsTextIsRefused) {
    ExpectAborted(Times(70000, "<a>"));
}

TEST_F(PolicyParser, DefaultedAttributesThatOutgrowTheTextAreRefused) {
    ExpectAborted("<!DOCTYPE a [<!ATTLIST b c CDATA \"" + std::string(1U << 20U, 'x') + "\">]><a>" +
                  Times(100, "<b/>"));
}

TEST_F(PolicyParser, EmptyAttributesThatOutgrowTheirTextAreRefused) {
    std::string attributes;
    for (int attribute = 0; attribute < zol::kMaxDeclarations; ++attribute) {
        attributes += " a" + std::to_string(attribute) + " CDATA \"\"";
    }
    ExpectAborted("<!DOCTYPE a [<!ATTLIST b" + attributes + ">]><a>" + Times(5500, "<b/>"));
}

TEST_F(PolicyParser, ATagThatTakesTooMuchMemoryIsRefusedAndTheNextDocumentIsRead) {
    ExpectRefused(ElementWithAttributes(330000), "Error while parsing policy: out of memory");

    EXPECT_EQ(Parse("<zols key=\"next\"/>").vconfMonitors.at(0).key, "next");
}

TEST_F(PolicyParser, ElementsThatAreClosedAgainCostNothing) {
    const std::string xml = "<a>" + Times(300000, "<b/>") + "<zols key=\"last\"/></a>";
    EXPECT_EQ(Parse(xml).vconfMonitors.at(0).key, "last");
}

TEST_F(PolicyParser, AMillionLinesInAnElementWithANameOfAMebibyteEndBeforeTheTimeLimit) {
    const std::string name(1U << 20U, 'n');
    const std::string lines(1U << 20U, '\n');

    EXPECT_TRUE(Parse("<" + name + ">" + lines + "</" + name + ">").vconfMonitors.empty());
}

TEST_F(PolicyParser, AnExternalEntityIsNeverOpened) {
    fakes::WriteDeviceFile("/etc/secret", "<zols key=\"stolen\"/>");
    const ZOLPolicy policy = Parse("<!DOCTYPE a [<!ENTITY x SYSTEM \"" + fakes::Root() +
                                   "/etc/secret\">]><a>&x;<zols key=\"own\"/></a>");

    ASSERT_EQ(policy.vconfMonitors.size(), 1U);
    EXPECT_EQ(policy.vconfMonitors[0].key, "own");
}

TEST_F(PolicyParser, AParserThatCannotBeMadeIsLoggedAndTheItemsAreGone) {
    ZOLPolicy policy = Parse("<a><zols/><monitor/></a>");
    FailParsers(true);
    EXPECT_FALSE(m_parser.Parse(kExample, policy));
    FailParsers(false);

    EXPECT_TRUE(policy.vconfMonitors.empty());
    EXPECT_EQ(policy.policyMonitors.size(), 1U);
    ExpectErrors({"Couldnt create parser"});
    EXPECT_EQ(Logged("Parsing failed."), 0);
}

TEST_F(PolicyParser, OneParserServesSeveralThreads) {
    std::atomic<int> items{0};
    constexpr int kThreads = 4;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&] {
            for (int round = 0; round < 20; ++round) {
                ZOLPolicy policy;
                EXPECT_TRUE(m_parser.Parse(kExample, policy));
                items += static_cast<int>(policy.policyMonitors.size());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(items, kThreads * 20 * 2);
}

}  // namespace
