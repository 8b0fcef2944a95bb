#include "request.h"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <memory>

#include "base/handles.h"

namespace upload {
namespace {

using CurlPtr = std::unique_ptr<CURL, base::FreeWith<curl_easy_cleanup>>;
using MimePtr = std::unique_ptr<curl_mime, base::FreeWith<curl_mime_free>>;
using ListPtr = std::unique_ptr<curl_slist, base::FreeWith<curl_slist_free_all>>;

constexpr long kWholeFactor = 10;
constexpr std::size_t kMaxAnswer = 65536;  // bytes that are read; nobody looks at them

/// Reads an answer so far and no further: a server may send without end.
std::size_t Discard(const char* /*data*/, std::size_t size, std::size_t count, void* read) {
    auto* const total = static_cast<std::size_t*>(read);
    *total += size * count;
    return *total <= kMaxAnswer ? size * count : 0;
}

void AddText(curl_mime* mime, const char* name, const std::string& text, const char* type) {
    curl_mimepart* const part = curl_mime_addpart(mime);
    curl_mime_name(part, name);
    curl_mime_data(part, text.data(), text.size());
    curl_mime_type(part, type);
}

bool Fill(curl_mime* mime, const Message& message) {
    AddText(mime, "header", message.header, "application/json");
    AddText(mime, "id", message.id, "text/plain");
    AddText(mime, "name", message.name, "text/plain");
    AddText(mime, "whole", message.isWhole ? "true" : "false", "text/plain");
    for (const PartFile& file : message.files) {
        curl_mimepart* const part = curl_mime_addpart(mime);
        curl_mime_name(part, "file");
        if (curl_mime_filedata(part, file.path.c_str()) != CURLE_OK) {
            return false;
        }
        curl_mime_filename(part, file.name.c_str());
        curl_mime_type(part, file.isPacked ? "application/gzip" : "application/octet-stream");
    }
    return true;
}

void SetUnlessEmpty(CURL* curl, CURLoption option, const std::string& value) {
    if (!value.empty()) {
        curl_easy_setopt(curl, option, value.c_str());
    }
}

void Prepare(CURL* curl, const Target& target, std::size_t* read, char* error) {
    curl_easy_setopt(curl, CURLOPT_URL, target.url.c_str());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_USERAGENT, "zol_upload/" ZOL_VERSION);
    SetUnlessEmpty(curl, CURLOPT_CAINFO, target.authorities);
    if (!target.authorities.empty()) {
        curl_easy_setopt(curl, CURLOPT_CAPATH, nullptr);  // else the machine's own would do, too
    }
    SetUnlessEmpty(curl, CURLOPT_SSLCERT, target.certificate);
    SetUnlessEmpty(curl, CURLOPT_SSLKEY, target.key);
    SetUnlessEmpty(curl, CURLOPT_PROXY, target.proxy);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, target.timeoutSeconds);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, target.timeoutSeconds);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, kWholeFactor * target.timeoutSeconds);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Discard);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, read);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);
}

/// What came of a transfer that was tried.
Answer Read(CURL* curl, CURLcode code, bool isCut, const char* error) {
    Answer answer;
    long status = 0;
    curl_off_t wish = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(curl, CURLINFO_RETRY_AFTER, &wish);
    if (code != CURLE_OK && !isCut && Judge(status) != Verdict::Refused) {
        // Also with a status of success: who answers before all was sent may not have it all.
        answer.reason = *error != '\0' ? error : curl_easy_strerror(code);
        return answer;
    }
    answer.verdict = Judge(status);
    answer.wishSeconds = static_cast<std::uint64_t>(wish > 0 ? wish : 0);
    answer.reason = "the server answers " + std::to_string(status);
    return answer;
}

}  // namespace

Verdict Judge(long status) {
    // Of those that say "not you" or "not now": a proxy's 407 is no word of the server's.
    constexpr std::array<long, 5> kTransient{407, 408, 421, 425, 429};
    constexpr long kHundred = 100;
    if (status / kHundred == 2) {
        return Verdict::Done;
    }
    const bool isRefusal =
        status / kHundred == 4 && std::count(kTransient.begin(), kTransient.end(), status) == 0;
    return isRefusal ? Verdict::Refused : Verdict::Again;
}

Answer Send(const Target& target, const Message& message) {
    Answer failed;
    failed.reason = "no memory for an upload";
    curl_global_init(CURL_GLOBAL_DEFAULT);
    const CurlPtr curl(curl_easy_init());
    const ListPtr headers(curl_slist_append(nullptr, ("Idempotency-Key: " + message.id).c_str()));
    if (curl == nullptr || headers == nullptr) {
        return failed;
    }
    const MimePtr mime(curl_mime_init(curl.get()));
    if (mime == nullptr || !Fill(mime.get(), message)) {
        return failed;
    }
    std::size_t read = 0;
    std::array<char, CURL_ERROR_SIZE> error{};
    Prepare(curl.get(), target, &read, error.data());
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(curl.get(), CURLOPT_MIMEPOST, mime.get());
    const CURLcode code = curl_easy_perform(curl.get());
    return Read(curl.get(), code, code == CURLE_WRITE_ERROR && read > kMaxAnswer, error.data());
}

}  // namespace upload
