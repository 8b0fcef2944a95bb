#pragma once
/// The application's side of org.zol.Policy1, with what a test puts into it.
#include <stdexcept>
#include <string>
#include <vector>

#include "IPolicyService.h"

/// A document or a key "throw" throws.
class FakePolicyService : public zol::IPolicyService {
public:
    zol::TSPolicyAnswer SetPolicy(const std::string& document) override {
        ThrowAt(document);
        documents.push_back(document);
        return answer;
    }
    std::vector<zol::TSPolicyRemark> Check(const std::string& document) override {
        ThrowAt(document);
        return answer.remarks;
    }
    std::vector<zol::TSPolicyRule> Explain(const std::string& key) override {
        ThrowAt(key);
        return rules;
    }
    zol::TSPolicyState State() override { return state; }
    zol::TSPolicyDigests Digests() override { return digests; }

    std::vector<std::string> documents;  ///< that were set
    zol::TSPolicyAnswer answer;
    std::vector<zol::TSPolicyRule> rules;
    zol::TSPolicyState state;
    zol::TSPolicyDigests digests;

private:
    static void ThrowAt(const std::string& text) {
        if (text == "throw") {
            throw std::runtime_error("as the test wants it");
        }
    }
};
