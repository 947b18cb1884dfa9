#pragma once

#include <windows.h>

// The crash reporter's installation record (wide-character variant) as its library reads it.
struct InstallRecord {
    WORD size;
    LPCWSTR applicationName, applicationVersion, emailTo, emailSubject, url, senderPath;
    void* crashCallback;
    UINT priorities[5];
    DWORD flags;
    LPCWSTR privacyPolicyUrl, debugHelpDll;
    int miniDumpType;
    LPCWSTR reportSaveFolder, restartCommandLine, languageFile, emailText, smtpProxy, senderIcon,
        smtpLogin, smtpPassword;
    int restartTimeout, maxReportsPerDay;
};
static_assert(sizeof(InstallRecord) == 184, "the 64-bit record");

#define STANDIN_REFUSAL "stand-in: installation refused"
