#include "event_items.h"

#include <algorithm>

namespace reports {

std::map<std::string, std::string> ItemsOf(const std::string& description) {
    std::map<std::string, std::string> items;
    std::size_t begin = description.find_first_not_of('{');
    while (begin < description.size()) {
        const std::size_t end = std::min(description.find_first_of(";}", begin), description.size());
        const std::size_t equals = description.find('=', begin);
        if (equals < end) {
            items[description.substr(begin, equals - begin)] =
                description.substr(equals + 1, end - equals - 1);
        }
        begin = end + 1;
    }
    return items;
}

}  // namespace reports
