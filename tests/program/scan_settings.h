#pragma once

#include <string>

// The settings that the three scan pages share, for their tests.

/// The part of a settings template that shows them.
inline const std::string SCAN_VARIABLES =
    "ScanOptionIncludeExtList=0\n"
    "ScanOptionIncludeExtListString=\"\"\n"
    "bScanOptionIncludeHVExtList=false\n"
    "bScanOptionBackupFilesBeforeClean=false\n"
    "bScanOptionScanCompressed=false\n"
    "iScanOptionCompressionLayer=0\n"
    "sScanOptionCompressFileSize=\"\"\n"
    "<!--___SCANACTION_SET___-->";

/// What that part becomes; the values given are those of a record with nothing set.
struct ShownScanSettings {
    std::string files = "0";
    std::string extensions{};
    std::string alsoDefaults = "false";
    std::string backup = "false";
    std::string compressed = "false";
    std::string layer = "-1";
    std::string sizeLimit = "0";
    std::string keen = "1";
    std::string universal = "0";
    std::string actions = "Universe-5-4,Virus-5-4,Trojan-4-1,Joke-4-1";

    std::string text() const {
        const auto hidden = [](const std::string& name, const std::string& value) {
            return "<input type=\"hidden\" name=\"" + name + "\" value=\"" + value + "\">\n";
        };
        return "ScanOptionIncludeExtList=" + files + "\nScanOptionIncludeExtListString=\"" + extensions +
               "\"\nbScanOptionIncludeHVExtList=" + alsoDefaults + "\nbScanOptionBackupFilesBeforeClean=" + backup +
               "\nbScanOptionScanCompressed=" + compressed + "\niScanOptionCompressionLayer=" + layer +
               "\nsScanOptionCompressFileSize=\"" + sizeLimit + "\"\n" + hidden("EnableKeenAct", keen) +
               hidden("EnableUniAct", universal) + hidden("CustAction", actions);
    }
};
