#ifndef VORN_IO_SFCOMMANDPARSER_H
#define VORN_IO_SFCOMMANDPARSER_H

#include <string>

#include "core/VornExport.h"

// The process-wide vendor-command table (command text address -> service id) and the text
// operations that split a command. All operations are static.
class VORN_EXPORT SFCommandParser {
public:
    virtual ~SFCommandParser() {}

    // Keyed by the address of the text, which must outlive the table.
    static void AddVendorCmd(char const* command, int serviceId);
    // Keyed by the address of the temporary copy: kept for completeness, unused by the system.
    static void AddVendorCmd(std::string command, int serviceId);
    static void DumpVendorCmd();
    // Destroys the table for good.
    static void Release();

    static void GetCommandHeader(std::string& command, std::string& header);
    static char const* FindVendorCmd(char const* command, int length);
    static int GetServiceIdByVendorCmd(char const* command, int length);
    static bool ProductCmd2VendorCmd(char const* command, int length, char* output,
                                     int& outputLength);
    static long FindEqualSymbol(char const* text);
    static long FindPlusSymbol(char const* text);
    static long FindColonSymbol(char const* text);
    static bool GetCommandParamer(char const* command, std::string& parameter);
    static bool GetCommandParamer(char const* command, char** parameter);
    static bool RemoveEnterSymbol(std::string& text);
    // Deliberately changes nothing: it looks at the terminator only. Use the string form.
    static bool RemoveEnterSymbol(char* text);
};

#endif
