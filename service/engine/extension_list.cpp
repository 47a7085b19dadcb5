#include "service/engine/extension_list.h"

#include "norv/log.h"
#include "norv/scan_config.h"
#include "service/base/files.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <filesystem>

namespace keldra {

namespace {

constexpr std::string_view FILE_NAME = "HVDefaultExt.txt";
constexpr std::string_view HEADER = "Keldra default extensions";
constexpr std::size_t HEAD_SIZE = 4096;
constexpr std::size_t LONGEST_EXTENSION = 64;

char lower(char letter) { return static_cast<char>(std::tolower(static_cast<unsigned char>(letter))); }

std::string lowered(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), lower);
    return result;
}

bool isSeparator(char letter) {
    constexpr std::string_view SEPARATORS = ";,: \t\r\n";
    return SEPARATORS.find(letter) != std::string_view::npos;
}

/// "*.Exe" and ".exe" are "exe".
std::string bareExtension(std::string_view piece) {
    if (!piece.empty() && piece.front() == '*') piece.remove_prefix(1);
    while (!piece.empty() && piece.front() == '.') piece.remove_prefix(1);
    return lowered(piece);
}

struct Magic {
    std::size_t offset;
    std::string_view bytes;
};

using namespace std::string_view_literals;

/// How files that can carry malware begin. Numbers as the formats' own descriptions and file(1)'s magic give them.
constexpr std::array MAGICS{
    Magic{0, "MZ"sv},  // DOS and Windows programs, drivers, libraries
    Magic{0,
          "\x7f"
          "ELF"sv},                    // Unix programs and libraries
    Magic{0, "\xca\xfe\xba\xbe"sv},    // Java classes, fat Mach-O
    Magic{0, "\xfe\xed\xfa"sv},        // Mach-O, big-endian
    Magic{0, "\xce\xfa\xed\xfe"sv},    // Mach-O, 32 bit
    Magic{0, "\xcf\xfa\xed\xfe"sv},    // Mach-O, 64 bit
    Magic{0, "dex\n"sv},               // Android programs
    Magic{0, "\0asm"sv},               // WebAssembly
    Magic{0, "#!"sv},                  // scripts
    Magic{0, "PK\x03\x04"sv},          // ZIP, and the documents built on it
    Magic{0, "PK\x05\x06"sv},          // empty or spanned ZIP
    Magic{0, "Rar!\x1a\x07"sv},        // RAR
    Magic{0, "7z\xbc\xaf\x27\x1c"sv},  // 7-Zip
    Magic{0, "\x1f\x8b"sv},            // gzip
    Magic{0, "BZh"sv},                 // bzip2
    Magic{0,
          "\xfd"
          "7zXZ"sv},                                 // xz
    Magic{0, "\x28\xb5\x2f\xfd"sv},                  // zstd
    Magic{0, "MSCF"sv},                              // cabinet
    Magic{0, "ISc("sv},                              // InstallShield cabinet
    Magic{0, "\x60\xea"sv},                          // ARJ
    Magic{2, "-lh"sv},                               // LHA
    Magic{0, "SZDD"sv},                              // compressed by MS COMPRESS
    Magic{0, "070707"sv},                            // cpio
    Magic{0, "070701"sv},                            // cpio
    Magic{0, "\xc7\x71"sv},                          // cpio, binary
    Magic{257, "ustar"sv},                           // tar
    Magic{0, "xar!"sv},                              // xar
    Magic{0, "\xd0\xcf\x11\xe0\xa1\xb1\x1a\xe1"sv},  // OLE2: office documents, installers, mail
    Magic{0, "{\\rtf"sv},                            // RTF
    Magic{0, "ITSF"sv},                              // compiled help
    Magic{0, "FWS"sv},                               // Flash
    Magic{0, "CWS"sv},                               // Flash
    Magic{0, "ZWS"sv},                               // Flash
    Magic{0, "L\0\0\0\x01\x14\x02\0"sv},             // Windows shortcuts
    Magic{0, "\xe4\x52\x5c\x7b\x8c\xd8\xa7\x4d"sv},  // OneNote
    Magic{0, "x\x9f>\""sv},                          // TNEF
};

/// Words that texts which can carry malware begin with or hold near their beginning, lower case.
constexpr std::array WORDS{
    "%pdf-"sv,         "<html"sv,     "<!doctype"sv, "<script"sv,      "<?php"sv,     "<?xml"sv, "<hta:"sv,
    "<svg"sv,          "<%"sv,        "@echo"sv,     "createobject"sv, "wscript"sv,   "eval("sv, "function"sv,
    "powershell"sv,    "invoke-"sv,   "sub "sv,      "[autorun]"sv,    "received:"sv, "from:"sv, "mime-version:"sv,
    "content-type:"sv, "x5o!p%@ap"sv, "begin 6"sv,
};

std::string_view textOf(std::span<const unsigned char> bytes) {
    // The same bytes seen as characters.
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};  // NOLINT
}

/// "a.tar.gz" ends with "gz" and with "tar.gz".
bool endsWithExtension(const std::vector<std::string>& sorted, std::string_view name) {
    for (std::size_t dot = name.find('.'); dot != std::string_view::npos; dot = name.find('.', dot + 1)) {
        const std::string_view extension = name.substr(dot + 1);
        if (extension.size() <= LONGEST_EXTENSION &&
            std::binary_search(sorted.begin(), sorted.end(), lowered(extension))) {
            return true;
        }
    }
    return false;
}

}  // namespace

const std::vector<std::string>& defaultExtensions() {
    static const std::vector<std::string> LIST = parseExtensions(
        "386;7z;ace;acm;ade;adp;ani;apk;app;appx;arj;asp;aspx;ax;bat;bin;boo;bz2;cab;cdr;chm;class;cla;cmd;com;cpl;"
        "csc;cur;dex;dll;dmg;do;doc;docm;docx;dot;dotm;dotx;drv;dvb;eml;emf;exe;fon;gz;gzip;hlp;hta;htm;html;htt;inf;"
        "ini;iqy;iso;jar;jnlp;js;jse;lha;lnk;lzh;mdb;mht;mhtml;mpd;mpp;mpt;msc;msg;msi;mso;msp;mst;nws;ocx;odp;ods;odt;"
        "oft;one;ova;ovl;pdf;php;pif;pl;pot;potm;potx;ppam;pps;ppsm;ppsx;ppt;pptm;pptx;prc;ps1;psm1;py;qpw;rar;reg;rpm;"
        "rtf;scr;sct;sh;shb;shs;sldm;slk;so;svg;swf;sys;tar;taz;tbz;tgz;tlb;tsp;txz;url;vb;vba;vbe;vbs;vhd;vsd;vsdm;"
        "vsdx;vss;vst;vxd;wasm;wbk;wim;wml;wmf;ws;wsc;wsf;wsh;xar;xla;xlam;xls;xlsb;xlsm;xlsx;xlt;xltm;xltx;xlw;xml;"
        "xps;xz;z;zip;zst");
    return LIST;
}

bool writeDefaultExtensions(const std::string& varPath) {
    std::string text = std::string(HEADER) + "\n";
    for (const std::string& extension : defaultExtensions()) text += extension + ";";
    text.back() = '\n';
    const std::filesystem::path path = std::filesystem::path(varPath) / FILE_NAME;
    const WriteResult written = writeFileAtomically(path, text, 0644);
    if (!written) {
        NORV_LOG(NORV_LOG_ERROR, "cannot write %s: %s", path.c_str(), errorText(written.error).c_str());
    }
    return written.written;
}

std::vector<std::string> parseExtensions(std::string_view typed) {
    std::vector<std::string> extensions;
    while (!typed.empty()) {
        const auto* const end = std::find_if(typed.begin(), typed.end(), isSeparator);
        const auto length = static_cast<std::size_t>(end - typed.begin());
        std::string extension = bareExtension(typed.substr(0, length));
        if (!extension.empty()) extensions.push_back(std::move(extension));
        typed.remove_prefix(std::min(length + 1, typed.size()));
    }
    return extensions;
}

bool canCarryMalware(std::span<const unsigned char> head) {
    head = head.first(std::min(head.size(), HEAD_SIZE));
    const std::string_view bytes = textOf(head);
    const bool known = std::any_of(MAGICS.begin(), MAGICS.end(), [bytes](const Magic& magic) {
        return bytes.size() >= magic.offset && bytes.substr(magic.offset, magic.bytes.size()) == magic.bytes;
    });
    if (known) return true;
    // Texts in UTF-16 are read by every second byte.
    std::string text = lowered(bytes);
    std::erase(text, '\0');
    return std::any_of(WORDS.begin(), WORDS.end(),
                       [&text](std::string_view word) { return text.find(word) != std::string::npos; });
}

FileSelector::FileSelector(const NORVScanConfig& settings) : byContent_(settings.zelscan) {
    if (byContent_) return;
    extensions_ = parseExtensions(settings.includeExtList);
    if (settings.includeHVExtList) {
        extensions_.insert(extensions_.end(), defaultExtensions().begin(), defaultExtensions().end());
    }
    std::sort(extensions_.begin(), extensions_.end());
    extensions_.erase(std::unique(extensions_.begin(), extensions_.end()), extensions_.end());
}

bool FileSelector::byName(std::string_view name) const {
    return extensions_.empty() || endsWithExtension(extensions_, name);
}

bool FileSelector::byContent(int fd) const {
    if (!byContent_) return true;
    std::array<unsigned char, HEAD_SIZE> head{};
    const ssize_t length = ::pread(fd, head.data(), head.size(), 0);
    return length < 0 || canCarryMalware(std::span(head).first(static_cast<std::size_t>(length)));
}

}  // namespace keldra
