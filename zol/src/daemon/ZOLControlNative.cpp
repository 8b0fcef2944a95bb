#include "ZOLControlNative.h"

#include <boost/archive/archive_exception.hpp>
#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>

#include "IControl.h"
#include "IDbus.h"
#include "Log.h"
#include "TCIpcSerializationUtil.h"

namespace zol {
namespace {

constexpr const char* kLogModule = "zol::TCControlNative";

using Bytes = std::vector<unsigned char>;
using boost::archive::archive_exception;

// Strings of an archive, its signature included, are their length in a size_t and their bytes. The library
// makes room for the length before it looks whether the bytes are there, and a caller may announce anything.
void RequireWholeString(const Bytes& in, std::size_t position) {
    std::size_t announced = 0;
    if (position > in.size() || in.size() - position < sizeof(announced)) {
        throw archive_exception(archive_exception::input_stream_error);
    }
    std::memcpy(&announced, in.data() + position, sizeof(announced));
    const std::size_t left = in.size() - position - sizeof(announced);
    if (announced > left) {
        ZOL_LOG(LOG_ERROR, "Request announces %zu bytes and carries %zu", announced, left);
        throw archive_exception(archive_exception::input_stream_error);
    }
}

std::string ReadString(const Bytes& in) {
    RequireWholeString(in, 0);
    std::stringstream stream;
    TCIpcSerializationUtil::ConvertData(in, stream);
    boost::archive::binary_iarchive archive(stream);

    const std::streamoff position = stream.rdbuf()->pubseekoff(0, std::ios_base::cur, std::ios_base::in);
    RequireWholeString(in, position < 0 ? in.size() : static_cast<std::size_t>(position));
    std::string text;
    archive >> text;
    return text;
}

void WriteInteger(std::int32_t number, Bytes& out) {
    std::stringstream stream;
    {
        boost::archive::binary_oarchive archive(stream);
        archive << number;
    }
    TCIpcSerializationUtil::ConvertData(stream, out);
}

}  // namespace

TCControlNative::TCControlNative(IDbus& server, TCPolicyManager& manager) : TCControl(manager) {
    server.RegisterNativeCall(IControl_FC::SET_POLICY, [this](const Bytes& in, Bytes& out) {
        return m_OnCallReceived(IControl_FC::SET_POLICY, in, out);
    });
}

bool TCControlNative::m_OnCallReceived(int code, const Bytes& in, Bytes& out) {
    return code == IControl_FC::SET_POLICY && m_SetPolicy(in, out);
}

bool TCControlNative::m_SetPolicy(const Bytes& in, Bytes& out) {
    if (in.empty()) {
        ZOL_LOG(LOG_DEBUG, "error: no input");
        return false;
    }
    const bool isAccepted = SetPolicy(ReadString(in));
    WriteInteger(isAccepted ? 1 : 0, out);
    return true;
}

}  // namespace zol
