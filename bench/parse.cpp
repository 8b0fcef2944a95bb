/// Parsing and checking policies, beside bare expat over the same bytes with empty handlers.
/// Lines go to log files below ZOL_ROOT; with ZOL_ROOT=/dev/null they go nowhere.
#include <benchmark/benchmark.h>
#include <expat.h>

#include <string>

#include "PolicyCheck.h"
#include "TCDebug.h"
#include "ZOLPolicy.h"
#include "ZOLPolicyParser.h"
#include "policy_document.h"

namespace {

using bench::PolicyDocument;

void Sizes(benchmark::internal::Benchmark* benchmark) {
    for (const int items : {10, 1000, 10000, 20000}) {
        benchmark->Arg(items);
    }
}

void PolicyParser(benchmark::State& state) {
    const std::string document = PolicyDocument(static_cast<int>(state.range(0)));
    const zol::TCPolicyParser parser;
    for (auto _ : state) {
        zol::ZOLPolicy policy;
        benchmark::DoNotOptimize(parser.Parse(document, policy));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(document.size()));
}
BENCHMARK(PolicyParser)->Apply(Sizes)->Unit(benchmark::kMillisecond);

void PolicyParserWithDebugChannel(benchmark::State& state) {
    TCDebug::EnableFileLog(true);
    PolicyParser(state);
    TCDebug::EnableFileLog(false);
}
BENCHMARK(PolicyParserWithDebugChannel)->Apply(Sizes)->Unit(benchmark::kMillisecond);

/// A number of findings that a document may well have, one item in ten.
void PolicyCheck(benchmark::State& state) {
    std::string document = PolicyDocument(static_cast<int>(state.range(0)));
    for (std::size_t at = 0, item = 0; (at = document.find("BETWEEN", at)) != std::string::npos; ++at) {
        if (item++ % 10 == 0) {
            document.replace(at, 7, "BETWEN");
        }
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(zol::CheckPolicy(document));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(document.size()));
}
BENCHMARK(PolicyCheck)->Apply(Sizes)->Unit(benchmark::kMillisecond);

void XMLCALL IgnoreStart(void* /*data*/, const XML_Char* /*name*/, const XML_Char** /*attributes*/) {}
void XMLCALL IgnoreEnd(void* /*data*/, const XML_Char* /*name*/) {}
void XMLCALL IgnoreText(void* /*data*/, const XML_Char* /*text*/, int /*length*/) {}

void BareExpat(benchmark::State& state) {
    const std::string document = PolicyDocument(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        XML_Parser parser = XML_ParserCreate(nullptr);
        XML_SetElementHandler(parser, IgnoreStart, IgnoreEnd);
        XML_SetCharacterDataHandler(parser, IgnoreText);
        benchmark::DoNotOptimize(XML_Parse(parser, document.data(), static_cast<int>(document.size()), 0));
        XML_ParserFree(parser);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(document.size()));
}
BENCHMARK(BareExpat)->Apply(Sizes)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
