// Build configuration shared by every Tavrin header: the export macro and small helpers that
// each translation unit would otherwise re-invent.
#pragma once

#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef UNICODE
#define UNICODE
#endif
#ifndef _UNICODE
#define _UNICODE
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
