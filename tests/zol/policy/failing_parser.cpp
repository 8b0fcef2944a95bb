#include "failing_parser.h"

#include <dlfcn.h>
#include <expat.h>

namespace {

thread_local bool t_failCreate = false;

}  // namespace

void FailParsers(bool fail) {
    t_failCreate = fail;
}

/// Stands before the library's, for the whole test program.
extern "C" XML_Parser XML_ParserCreate_MM(const XML_Char* encoding, const XML_Memory_Handling_Suite* memory,
                                          const XML_Char* separator) {
    using Create = XML_Parser (*)(const XML_Char*, const XML_Memory_Handling_Suite*, const XML_Char*);
    static const auto create = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "XML_ParserCreate_MM"));
    return t_failCreate ? nullptr : create(encoding, memory, separator);
}
