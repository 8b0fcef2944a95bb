#include "TCIpcSerializationUtil.h"

#include <string>

void TCIpcSerializationUtil::ConvertData(const std::vector<unsigned char>& bytes, std::stringstream& stream) {
    stream.str(std::string(bytes.begin(), bytes.end()));
    stream.clear();
}

void TCIpcSerializationUtil::ConvertData(const std::stringstream& stream, std::vector<unsigned char>& bytes) {
    const std::string text = stream.str();
    bytes.assign(text.begin(), text.end());
}
