/// dlogutil: shows the platform log and follows it.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <map>

#include "record.h"
#include "source.h"

namespace {

using dlogutil::Filters;
using dlogutil::Format;
using dlogutil::Record;
using dlogutil::Source;

constexpr int kBadUsage = 2;

struct Options {
    std::string buffer = "all";
    Format format = Format::Time;
    bool dump = false;
    std::vector<std::string> filters;
};

void Describe(CLI::App& app, Options& options) {
    app.description(
        "Shows the platform log from its oldest line on and follows it until killed.\n"
        "Reads the journal where there is one (below ZOL_ROOT when it is set), else the log files.");
    app.add_option("-b,--buffer", options.buffer, "the log buffer: main, system or all")
        ->check(CLI::IsMember({"main", "system", "all"}))
        ->capture_default_str();
    const std::map<std::string, Format> formats = {
        {"time", Format::Time}, {"kerneltime", Format::KernelTime}, {"brief", Format::Brief}};
    app.add_option(
           "-v,--format", options.format,
           "what stands in front of a line: time (date and time, the default), kerneltime (seconds on the "
           "monotonic clock: as the journal has it; for log files computed from the time of the line and "
           "the clocks of now, so off by as much as the wall clock was set since) or brief (nothing)")
        ->transform(CLI::CheckedTransformer(formats).description("{time,kerneltime,brief}"))
        ->option_text(" ");
    app.add_flag("-d,--dump", options.dump, "show what there is and end");
    app.add_option("filter", options.filters,
                   "TAG or TAG:P, the lines of exactly this tag with at least priority P (V D I W E F); "
                   "the tag * stands for every tag. Several add up");
}

std::unique_ptr<Source> Open(const Options& options, const std::vector<std::string>& tags) {
    const std::vector<std::string> buffers = options.buffer == "all"
                                                 ? std::vector<std::string>{"main", "system"}
                                                 : std::vector<std::string>{options.buffer};
    return dlogutil::OpenLog(buffers, tags);
}

/// Whole lines at once, however the output is buffered: somebody may be waiting for them behind a pipe.
bool Show(Source& source, const Options& options, const Filters& filters) {
    const bool drained = source.Drain([&](const Record& record) {
        if (filters.Wants(record.priority, record.tag)) {
            const std::string line = dlogutil::Print(record, options.format);
            std::fwrite(line.data(), 1, line.size(), stdout);
        }
    });
    return drained && std::fflush(stdout) == 0;
}

int Run(int argc, char** argv) {
    Options options;
    CLI::App app;
    Describe(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kBadUsage;
    }
    Filters filters;
    for (const std::string& text : options.filters) {
        if (!filters.Add(text)) {
            std::fprintf(stderr, "dlogutil: %s: the priority is one of V D I W E F\n", text.c_str());
            return kBadUsage;
        }
    }
    const std::unique_ptr<Source> source = Open(options, filters.Tags());
    if (source == nullptr) {
        std::fprintf(stderr, "dlogutil: the journal cannot be opened\n");
        return 1;
    }
    bool going = Show(*source, options, filters);
    while (going && !options.dump) {
        going = source->Wait() && Show(*source, options, filters);
    }
    return going ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "dlogutil: %s\n", error.what());
        return 1;
    }
}
