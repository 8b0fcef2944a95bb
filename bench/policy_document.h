#pragma once
/// Policies of any size.
#include <string>

namespace bench {

/// A good policy of so many rules, each on a key of its own.
inline std::string PolicyDocument(int items) {
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<zolitem numofzol=\"" +
                       std::to_string(items) + "\">\n<zol_expired_time time=\"2592000\"/>\n";
    for (int i = 0; i < items; ++i) {
        text += "<zols key=\"db/menu/group" + std::to_string(i / 100) + "/key" + std::to_string(i) +
                "\" condition=\"BETWEEN\" type=\"INT\" greater=\"5\" less=\"15\"/>\n";
    }
    return text + "</zolitem>\n";
}

}  // namespace bench
