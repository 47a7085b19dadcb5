#pragma once

#include "tests/harness/scripted_service.h"
#include "tests/unit/webui/page_test.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/qs_control.h"

#include <string>

/// A submitted form.
inline CQSControl formOf(const std::string& text) {
    CQSControl form;
    EXPECT_TRUE(form.parse(text)) << text;
    return form;
}

/// Tests of a settings page's functions, with a service that knows three virus types.
class SettingsTest : public PageTest {
protected:
    SettingsTest() { serveVirusTypes("Virus;Trojan;Joke"); }

    void serveVirusTypes(const std::string& types) {
        service.on(IPCMessage::GET, IPCMessage::VIRUS_TYPES, Answer::reply(1, {{"VirusTypes", types}}));
    }
    /// What a page that holds this text shows in its place; empty when nothing replaces it.
    static std::string shown(CPageWrapper& page, const std::string& text) { return page.replace(text, text); }
    std::string shown(const std::string& text) { return shown(page, text); }

    ScriptedService service{console.socket()};
    CPageWrapper page{CPageWrapper::CONTENT_TYPE_HTML};
};
