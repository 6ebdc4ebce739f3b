// Build configuration shared by every Tavrin header: the export macro and small helpers that
// each translation unit would otherwise re-invent.
#pragma once

// Windows 7 is the oldest system the library supports. A consumer may aim higher, or include
// <windows.h> first and so take MinGW-w64's default; a lower target would hide declarations the
// library's headers use.
#define TAVRIN_MIN_WIN32_WINNT 0x0601
#ifndef _WIN32_WINNT
#define _WIN32_WINNT TAVRIN_MIN_WIN32_WINNT
#elif _WIN32_WINNT < TAVRIN_MIN_WIN32_WINNT
#error "Tavrin needs _WIN32_WINNT 0x0601 (Windows 7) or later"
#endif
#ifndef WINVER
#define WINVER _WIN32_WINNT
#endif

#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef UNICODE
#define UNICODE
#endif
#ifndef _UNICODE
#define _UNICODE
#endif

// <windows.h> included before this header has brought in the old <winsock.h> (unless
// WIN32_LEAN_AND_MEAN was set). MinGW-w64's <winsock2.h> shares its definitions with it and is
// safe to include after it; only its guard makes it warn about the order, so the guard goes.
#if defined(_WINSOCKAPI_) && !defined(_WINSOCK2API_)
#undef _WINSOCKAPI_
#endif
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

// The one export macro of the library: classes and free functions of the DLL interface carry it.
#if defined(TAVRIN_BUILD_DLL)
#define TAVRIN_API __declspec(dllexport)
#elif defined(TAVRIN_STATIC)
#define TAVRIN_API
#else
#define TAVRIN_API __declspec(dllimport)
#endif

#define TAVRIN_WIDEN2(x) L##x
#define TAVRIN_WIDEN(x) TAVRIN_WIDEN2(x)
// Wide name of the current source file, as exceptions record it.
#define TAVRIN_WFILE TAVRIN_WIDEN(__FILE__)

#if defined(TAVRIN_BUILD_DLL)
// The library's own module handle; string resources and DATA files are found through it.
extern "C" IMAGE_DOS_HEADER __ImageBase;
#define TAVRIN_MODULE (reinterpret_cast<HINSTANCE>(&__ImageBase))
#endif
