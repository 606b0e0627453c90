# Writes a C++ table of what a room's library publishes under a kernel name: each global symbol that
# isn't mangled and begins with a capital letter, as the kernel's names do.
#
# cmake -DNM=nm -DOUT=routines_table.cpp -DEXECUTIVE=a -DSTREAMING=b -DUSB=c -P routines.cmake
set(declarations "")
set(tables "")
foreach(room EXECUTIVE STREAMING USB)
    execute_process(COMMAND ${NM} --defined-only --extern-only --format=posix ${${room}}
        OUTPUT_VARIABLE listing COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX MATCHALL "(^|\n)[A-Z][A-Za-z0-9_]* [TDBR] " symbols "${listing}")
    list(TRANSFORM symbols REPLACE "[\n]?([A-Za-z0-9_]+) .*" "\\1")
    if(NOT symbols)
        message(FATAL_ERROR "${${room}} publishes no kernel routine")
    endif()
    list(SORT symbols) # by bytes, as the lookup compares
    list(REMOVE_DUPLICATES symbols)
    string(SUBSTRING ${room} 1 -1 name)
    string(TOLOWER ${name} name)
    string(SUBSTRING ${room} 0 1 initial)
    set(name "${initial}${name}")
    set(rows "")
    foreach(symbol IN LISTS symbols)
        string(APPEND declarations "extern const char ${symbol}[];\n")
        string(APPEND rows "    {\"${symbol}\", ${symbol}},\n")
    endforeach()
    string(APPEND tables "static const Routine k${name}Table[] = {\n${rows}};\n"
        "extern const std::span<const Routine> k${name}Routines(k${name}Table);\n")
endforeach()
file(CONFIGURE OUTPUT ${OUT} @ONLY CONTENT "#include \"platform/pe/routines.h\"

extern \"C\" {
${declarations}}
namespace kelvane::pe {
${tables}}
")
