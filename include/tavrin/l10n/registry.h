// Registry helpers: the library's default settings key, typed value readers and writers, key
// and value maintenance, and the saving and restoring of window positions.
//
// Settings of an application live under HKEY_CURRENT_USER in the key that RegGetDefaultKeyName
// builds ("SOFTWARE\<company>\<product>[\<subkey>]"). A typical use:
//
//     ustring key, folder;
//     if (RegGetDefaultKeyName(nullptr, nullptr, L"Logs", key))
//         RegGetValue(HKEY_CURRENT_USER, key, L"Path", folder, L"C:\\Logs");
//
// None of these functions throws: each reports success as its result (RegGetKeyValue returns
// the Windows error code instead).
//
// windows.h maps the name RegGetValue to RegGetValueW; this header removes that macro so that
// tavrin::RegGetValue keeps its own name. Code that wants the Windows function calls
// RegGetValueW by its full name. tavrin::RegDeleteKeyW has the Windows function's signature, so
// code with `using namespace tavrin` names it with its namespace.
#pragma once

#include <tavrin/core/config.h>
#include <tavrin/core/ustring.h>

#include <vector>

#ifdef RegGetValue
#undef RegGetValue
#endif

namespace tavrin {

// "SOFTWARE\<company>\<product>" or, with a subkey, "SOFTWARE\<company>\<product>\<subkey>".
// A null company is "Vemko"; a null product is the executable's file name without folder and
// extension. False only when the executable's name cannot be read.
TAVRIN_API bool RegGetDefaultKeyName(const wchar_t* company, const wchar_t* product,
                                     const wchar_t* subkey, ustring& out);

// Type (REG_*) and raw bytes of a value. Returns the Windows error code, ERROR_SUCCESS (0) on
// success; on failure `type` is REG_NONE and `data` is empty.
TAVRIN_API long RegGetKeyValue(HKEY root, const wchar_t* key, const wchar_t* valueName,
                               unsigned long& type, std::vector<unsigned char>& data);

// Text of a REG_SZ or REG_EXPAND_SZ value (not expanded), up to its first terminating zero.
// `out` is first set to `defaultValue` (empty when null) and keeps it when the value is
// missing or of another type (false).
TAVRIN_API bool RegGetValue(HKEY root, const wchar_t* key, const wchar_t* valueName, ustring& out,
                            const wchar_t* defaultValue = nullptr);
// A REG_DWORD value; `out` keeps `defaultValue` when the value is missing or of another type.
TAVRIN_API bool RegGetValue(HKEY root, const wchar_t* key, const wchar_t* valueName, unsigned long& out,
                            unsigned long defaultValue = 0);
// The raw bytes of a value of any type; `out` is emptied on failure.
TAVRIN_API bool RegGetValue(HKEY root, const wchar_t* key, const wchar_t* valueName,
                            std::vector<unsigned char>& out);
// A REG_MULTI_SZ value as a list (reading stops at the list's first empty item); `out` is
// emptied on failure.
TAVRIN_API bool RegGetValue(HKEY root, const wchar_t* key, const wchar_t* valueName,
                            std::vector<ustring>& out);

// Writers create the key when it is missing. A null text writes the empty text (REG_SZ); a list
// is written as REG_MULTI_SZ (an empty item would end the list early when read back); a number
// as REG_DWORD.
TAVRIN_API bool RegWriteValue(HKEY root, const wchar_t* key, const wchar_t* valueName, const wchar_t* value);
TAVRIN_API bool RegWriteValue(HKEY root, const wchar_t* key, const wchar_t* valueName,
                              const std::vector<ustring>& value);
TAVRIN_API bool RegWriteValue(HKEY root, const wchar_t* key, const wchar_t* valueName, unsigned long value);

// Creates the key and any missing key above it; true also when it already exists.
TAVRIN_API bool RegCreateKeyW(HKEY root, const wchar_t* key);
// Deletes the key together with its subkeys and values. A null or empty key name is refused
// (false) so that a root can never be wiped by mistake; a missing key is false.
TAVRIN_API bool RegDeleteKeyW(HKEY root, const wchar_t* key);
// Deletes one value of the key; false when the key or the value is missing.
TAVRIN_API bool RegDeleteValueW(HKEY root, const wchar_t* key, const wchar_t* valueName);

// Names of the key's direct subkeys / values, in the registry's order; `out` is emptied first.
// False when the key cannot be opened or enumerated.
TAVRIN_API bool RegEnumSubKeys(HKEY root, const wchar_t* key, std::vector<ustring>& out);
TAVRIN_API bool RegEnumValues(HKEY root, const wchar_t* key, std::vector<ustring>& out);

// Saves a window's placement as the text value `name` of the default key's subkey
// "WindowPlacement" under HKEY_CURRENT_USER: "flags,showCmd,minX,minY,maxX,maxY,left,top,right,
// bottom". False for a null name or when the value cannot be written.
TAVRIN_API bool WriteWindowPlacement(const wchar_t* name, const WINDOWPLACEMENT& placement);
// Restores what WriteWindowPlacement saved: the record is cleared, `length` set to its size and
// the ten fields parsed. False for a null name, a missing or empty value, or a text without all
// ten numbers (the record may then be partly filled).
TAVRIN_API bool ReadWindowPlacement(const wchar_t* name, WINDOWPLACEMENT& placement);

} // namespace tavrin
