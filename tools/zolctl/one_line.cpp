#include "one_line.h"

namespace zolctl {

std::string OneLine(const std::string& text) {
    std::string line;
    for (const char c : text) {
        switch (c) {
            case '\t':
                line += "\\t";
                break;
            case '\n':
                line += "\\n";
                break;
            case '\r':
                line += "\\r";
                break;
            case '\\':
                line += "\\\\";
                break;
            default:
                line += c;
        }
    }
    return line;
}

}  // namespace zolctl
