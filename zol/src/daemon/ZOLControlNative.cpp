#include "ZOLControlNative.h"

#include <boost/archive/archive_exception.hpp>
#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>

#include "IControl.h"
#include "IDbus.h"
#include "Log.h"
#include "TCIpcSerializationUtil.h"
#include "ZOLPolicy.h"

namespace zol {
namespace {

constexpr const char* kLogModule = "zol::TCControlNative";

using Bytes = std::vector<unsigned char>;
using boost::archive::archive_exception;

/// Reads the request where it lies: it may be megabytes.
class BytesBuffer : public std::streambuf {
public:
    explicit BytesBuffer(const Bytes& bytes) {
        // Only ever read.
        auto* begin = reinterpret_cast<char*>(const_cast<unsigned char*>(bytes.data()));
        setg(begin, begin, begin + bytes.size());
    }

    /// Strings of an archive, its signature included, are their length in a size_t and their bytes. The
    /// library makes room for the length before it looks whether the bytes are there, and a caller may
    /// announce anything.
    /// @return the announced length
    std::size_t RequireWholeString() const {
        const auto left = static_cast<std::size_t>(egptr() - gptr());
        std::size_t announced = 0;
        if (left < sizeof(announced)) {
            throw archive_exception(archive_exception::input_stream_error);
        }
        std::memcpy(&announced, gptr(), sizeof(announced));
        if (announced > left - sizeof(announced)) {
            ZOL_LOG(LOG_ERROR, "Request announces %zu bytes and carries %zu", announced,
                    left - sizeof(announced));
            throw archive_exception(archive_exception::input_stream_error);
        }
        return announced;
    }
};

std::string ReadString(const Bytes& in) {
    BytesBuffer buffer(in);
    static_cast<void>(buffer.RequireWholeString());  // the signature, of any length
    boost::archive::binary_iarchive archive(buffer);
    if (const std::size_t size = buffer.RequireWholeString(); size > kMaxPolicyBytes) {
        ZOL_LOG(LOG_ERROR, "Request of %zu bytes refused, at most %zu are taken", size, kMaxPolicyBytes);
        throw std::length_error("policy of more than " + std::to_string(kMaxPolicyBytes) + " bytes");
    }
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

TCControlNative::TCControlNative(IDbus& server, TCPolicyManager& manager)
    : TCControl(manager), m_server(server) {
    m_server.RegisterNativeCall(IControl_FC::SET_POLICY, [this](const Bytes& in, Bytes& out) {
        return m_OnCallReceived(IControl_FC::SET_POLICY, in, out);
    });
}

TCControlNative::~TCControlNative() {
    m_server.RegisterNativeCall(IControl_FC::SET_POLICY, {});
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
