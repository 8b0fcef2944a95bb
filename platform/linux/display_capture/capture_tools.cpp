#include "display_capture/capture_tools.h"

#include <glib.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "base/glib_handles.h"

namespace platform {

namespace {

constexpr const char* kWayland = "WAYLAND_DISPLAY";
constexpr const char* kX11 = "DISPLAY";

using Words = std::array<const char*, 6>;

/// A program that writes the unscaled picture; "%" stands for the file.
struct Grabber {
    const char* display;  ///< environment variable of the display that it captures
    const char* format;   ///< of what it writes
    Words command;        ///< filled up with null
};

constexpr Grabber kGrabbers[] = {
    {kWayland, "ppm", {"grim", "-t", "ppm", "%"}},
    {kX11, "ppm", {"import", "-silent", "-window", "root", "ppm:%"}},
    {kX11, "xwd", {"xwd", "-silent", "-root", "-out", "%"}},
    {kX11, "png", {"scrot", "--overwrite", "--silent", "%"}},
};

bool IsSet(const char* variable) {
    const char* value = std::getenv(variable);
    return value != nullptr && *value != '\0';
}

bool IsInstalled(const char* program) {
    return base::GStringPtr(g_find_program_in_path(program)) != nullptr;
}

/// The program that scales and converts; null when there is none.
const char* Converter() {
    for (const char* program : {"magick", "convert"}) {
        if (IsInstalled(program)) {
            return program;
        }
    }
    return nullptr;
}

Command Fill(const Words& words, const std::string& file) {
    Command command(words.begin(), std::find(words.begin(), words.end(), nullptr));
    for (std::string& word : command) {
        const std::size_t at = word.find('%');
        if (at != std::string::npos) {
            word.replace(at, 1, file);
        }
    }
    return command;
}

Command Convert(const char* converter, const dc_capture_request& request, const std::string& input,
                const std::string& picture) {
    const std::string size = std::to_string(request.width) + "x" + std::to_string(request.height) + "!";
    Command command = {converter, input, "-resize", size, "-depth", "8"};
    if (request.format == DC_FORMAT_JPEG) {
        command.insert(command.end(), {"-quality", std::to_string(request.quality), "jpeg:" + picture});
    } else {
        command.push_back("rgb:" + picture);
    }
    return command;
}

}  // namespace

bool HasDisplay() {
    return IsSet(kWayland) || IsSet(kX11);
}

std::vector<CaptureWay> CaptureWays(const dc_capture_request& request, const std::string& raw,
                                    const std::string& picture) {
    std::vector<CaptureWay> ways;
    const char* converter = Converter();
    if (converter == nullptr) {
        return ways;
    }
    for (const Grabber& grabber : kGrabbers) {
        const char* program = grabber.command.front();
        if (IsSet(grabber.display) && IsInstalled(program)) {
            const std::string input = std::string(grabber.format) + ":" + raw;
            ways.push_back(
                {program, {Fill(grabber.command, raw), Convert(converter, request, input, picture)}});
        }
    }
    return ways;
}

}  // namespace platform
