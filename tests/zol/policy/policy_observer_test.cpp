#include "PolicyObserver.h"

#include <new>
#include <string>
#include <utility>
#include <vector>

#include "ParseBudget.h"
#include "PolicyAttributes.h"
#include "ZOLPolicyParser.h"
#include "device_test.h"
#include "failing_parser.h"

namespace {

using zol::TCPolicyParser;
using zol::ZOLPolicy;

/// Keeps what it is told.
class Observer : public zol::IPolicyObserver {
public:
    void OnElement(const zol::TSElement& element, const ZOLPolicy& policy) override {
        Add(element.place, element.name + std::string(" ") + std::to_string(policy.vconfMonitors.size()));
        for (const char* const* word = element.attributes; *word != nullptr; ++word) {
            told.emplace_back(*word);
        }
        if (element.values.HasAttrOfValue("throw", "1")) {
            throw std::bad_alloc();
        }
    }
    void OnElementEnd() override { told.emplace_back("end"); }
    void OnCutShort(const zol::TSPlace& where) override { Add(where, "cut"); }
    void OnRefused(const zol::TSPlace& where, zol::EPolicyRefusal reason, const char* words) override {
        Add(where, words);
        refusal = reason;
    }

    std::vector<std::string> told;
    zol::EPolicyRefusal refusal{};

private:
    void Add(const zol::TSPlace& where, const std::string& what) {
        told.push_back(std::to_string(where.line) + ":" + std::to_string(where.column) + " " + what);
    }
};

class PolicyObserver : public DeviceTest {
protected:
    TCPolicyParser m_parser;
};

TEST_F(PolicyObserver, IsToldWhereThingsStandAndNothingIsLogged) {
    ZOLPolicy policy;
    Observer observer;

    EXPECT_TRUE(m_parser.Parse("<a>\n <ZOLS Key='k'/>text</a>", policy, &observer));

    const std::vector<std::string> told{"1:1 a 0", "2:2 ZOLS 1", "Key", "k", "end", "end"};
    EXPECT_EQ(observer.told, told);
    ASSERT_EQ(policy.vconfMonitors.size(), 1U);
    EXPECT_EQ(policy.vconfMonitors[0].key, "k");
    EXPECT_EQ(Logged(""), 0);
}

TEST_F(PolicyObserver, IsToldThatADocumentIsCutShortWhichIsTakenAllTheSame) {
    for (const char* xml : {"", " ", "<a>\n", "<a><zols key=", "<a/><!--"}) {
        ZOLPolicy policy;
        Observer observer;
        EXPECT_TRUE(m_parser.Parse(xml, policy, &observer)) << xml;
        ASSERT_FALSE(observer.told.empty()) << xml;
        EXPECT_NE(observer.told.back().find(" cut"), std::string::npos) << xml;
    }
    ZOLPolicy policy;
    Observer observer;
    EXPECT_TRUE(m_parser.Parse("<a>\n<zols/></a>\n", policy, &observer));
    EXPECT_EQ(observer.told.back(), "end");
}

TEST_F(PolicyObserver, IsToldWhyADocumentIsRefusedAndNothingIsLogged) {
    using Refusal = zol::EPolicyRefusal;
    std::string attributes;
    for (int i = 0; i <= zol::kMaxAttributes; ++i) {
        attributes += " a" + std::to_string(i) + "=''";
    }
    const std::vector<std::pair<std::string, Refusal>> cases{
        {"<a>\n</b>", Refusal::MALFORMED},
        {std::string(zol::kMaxPolicyBytes + 1, ' '), Refusal::TOO_LONG},
        {"<zols" + attributes + "/>", Refusal::BEYOND_BUDGET},
        {"<a throw='1'/>", Refusal::NO_MEMORY}};
    for (const auto& [xml, reason] : cases) {
        ZOLPolicy policy;
        Observer observer;
        EXPECT_FALSE(m_parser.Parse(xml, policy, &observer));
        EXPECT_EQ(observer.refusal, reason) << xml.substr(0, 80);
        EXPECT_FALSE(observer.told.empty());
    }
    FailParsers(true);
    ZOLPolicy policy;
    Observer observer;
    EXPECT_FALSE(m_parser.Parse("<a/>", policy, &observer));
    FailParsers(false);
    EXPECT_EQ(observer.refusal, Refusal::NO_MEMORY);
    EXPECT_EQ(Logged(""), 0);
}

}  // namespace
