# Run while a target of ky_add_resources is built: writes KY_SOURCE, which holds the files that
# KY_LIST names and registers them. KY_SYMBOL begins the names of its symbols.
#
# The assembler takes the files in as they are, whatever their size, and measures them itself.

cmake_minimum_required(VERSION 3.25)

# The bytes of a text as string literals, one each: safe whatever the text holds.
function(ky_literals out text)
    string(HEX "${text}" hex)
    string(REGEX REPLACE "(..)" "\"\\\\x\\1\"" literals "${hex}")
    set(${out} "${literals}" PARENT_SCOPE)
endfunction()

include("${KY_LIST}")

set(assembly "")
set(offsets "")
set(sizes "")
set(names "")
set(digests "")
math(EXPR last "${count} - 1")
foreach(i RANGE ${last})
    file(SHA256 "${path_${i}}" digest)
    string(APPEND digests "    \"${digest}\",\n")
    ky_literals(literals "${name_${i}}")
    string(APPEND names "    ${literals},\n")
    # Inside the assembler's own string.
    ky_literals(literals "${path_${i}}")
    string(REPLACE "\"\\x22\"" "\"\\\\\\x22\"" literals "${literals}")
    set(label ${KY_SYMBOL}_${i})
    string(APPEND assembly "    \".balign 16\\n\"\n"
                           "    \"${label}:\\n\"\n"
                           "    \".incbin \\\"\" ${literals} \"\\\"\\n\"\n"
                           "    \"${label}_end:\\n\"\n"
                           "    \".byte 0\\n\"\n")
    string(APPEND offsets "    \".quad ${label} - ${KY_SYMBOL}_blob\\n\"\n")
    string(APPEND sizes "    \".quad ${label}_end - ${label}\\n\"\n")
endforeach()

set(symbols "")
foreach(part blob offsets sizes)
    string(APPEND symbols "    \".globl ${KY_SYMBOL}_${part}\\n\"\n"
                          "    \".hidden ${KY_SYMBOL}_${part}\\n\"\n")
endforeach()

file(WRITE "${KY_SOURCE}" "// Written by ky_add_resources.

#include \"ky/kyResource.h\"

extern \"C\" {
extern __attribute__((visibility(\"hidden\"))) const char ${KY_SYMBOL}_blob[];
extern __attribute__((visibility(\"hidden\"))) const unsigned long ${KY_SYMBOL}_offsets[];
extern __attribute__((visibility(\"hidden\"))) const unsigned long ${KY_SYMBOL}_sizes[];
}

asm(\".pushsection .rodata,\\\"a\\\",@progbits\\n\"
${symbols}    \".balign 16\\n\"
    \"${KY_SYMBOL}_blob:\\n\"
${assembly}    \".balign 8\\n\"
    \"${KY_SYMBOL}_offsets:\\n\"
${offsets}    \"${KY_SYMBOL}_sizes:\\n\"
${sizes}    \".popsection\\n\");

namespace {

const char* const sNames[] = {
${names}};

const char* const sDigests[] = {
${digests}};

}  // namespace

/// Registers while it lives.
struct __attribute__((visibility(\"hidden\"))) ${KY_SYMBOL}_registration {
    ${KY_SYMBOL}_registration()
    {
        ky::rc::impl::RegisterResources(${count}, ${KY_SYMBOL}_blob, sNames, sDigests,
                                        ${KY_SYMBOL}_sizes, ${KY_SYMBOL}_offsets);
    }
    ~${KY_SYMBOL}_registration()
    {
        ky::rc::impl::UnRegisterResources(${count}, ${KY_SYMBOL}_blob, sNames, sDigests,
                                          ${KY_SYMBOL}_sizes, ${KY_SYMBOL}_offsets);
    }
};

extern \"C\" {
extern __attribute__((visibility(\"hidden\"))) ${KY_SYMBOL}_registration ${KY_SYMBOL}_table;
${KY_SYMBOL}_registration ${KY_SYMBOL}_table;
}
")
