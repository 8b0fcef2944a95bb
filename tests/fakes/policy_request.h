#pragma once
/// What a client sends with function code 4.
#include <boost/archive/binary_oarchive.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "TCIpcSerializationUtil.h"

inline std::vector<unsigned char> PolicyRequest(const std::string& text) {
    std::stringstream stream;
    {
        boost::archive::binary_oarchive archive(stream);
        archive << text;
    }
    std::vector<unsigned char> bytes;
    TCIpcSerializationUtil::ConvertData(stream, bytes);
    return bytes;
}
