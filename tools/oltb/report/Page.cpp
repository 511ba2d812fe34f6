// Fills the pages' templates: the placeholders stand where the style, the scripts and the data go, each once.
#include "tools/oltb/report/Page.h"

#include <initializer_list>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace oltb::report {

// Made at build time from the files in this folder and Debian's dygraphs (cmake/EmbedText.cmake).
extern const char pageTemplate[];
extern const char pageStyle[];
extern const char pageScript[];
extern const char commonScript[];
extern const char compareTemplate[];
extern const char compareScript[];
extern const char chartStyle[];
extern const char chartScript[];

namespace {

// The library as Debian ships it ends with a pointer to its source map, a file the page does not have.
std::string withoutSourceMap(std::string_view text) {
    for (const std::string_view marker : {"\n//# sourceMappingURL=", "\n/*# sourceMappingURL="}) {
        const std::size_t at = text.rfind(marker);
        if (at != std::string_view::npos) {
            const std::size_t end = text.find('\n', at + 1);
            return std::string(text.substr(0, at + 1)) +
                   std::string(end == std::string_view::npos ? std::string_view() : text.substr(end + 1));
        }
    }
    return std::string(text);
}

// Fills the first `placeholder` at or after `from` and moves `from` past the text filled in.
void fill(std::string& page, std::size_t& from, std::string_view placeholder, const std::string& text) {
    const std::size_t at = page.find(placeholder, from);
    if (at == std::string::npos) {
        throw std::logic_error("the page template lacks " + std::string(placeholder) + " in its place");
    }
    page.replace(at, placeholder.size(), text);
    from = at + text.size();
}

std::string escapedHtml(const std::string& text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '&':
                out += "&amp;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

// The placeholders stand in the template in the order given, and each is looked for after the text filled in
// before it, so that nothing inside a script or the data can be taken for one.
std::string filled(const char* pageTemplate, std::initializer_list<std::pair<std::string_view, std::string>> texts) {
    std::string page = pageTemplate;
    std::size_t from = 0;
    for (const auto& [placeholder, text] : texts) {
        fill(page, from, placeholder, text);
    }
    return page;
}

}  // namespace

bool pageAvailable() { return true; }

std::string renderPage(const std::string& title, const std::string& data) {
    return filled(pageTemplate, {{"@TITLE@", escapedHtml(title)},
                                 {"/*@CHART_STYLE@*/", withoutSourceMap(chartStyle)},
                                 {"/*@STYLE@*/", pageStyle},
                                 {"/*@CHART_SCRIPT@*/", withoutSourceMap(chartScript)},
                                 {"/*@COMMON_SCRIPT@*/", commonScript},
                                 {"/*@DATA@*/", data},
                                 {"/*@SCRIPT@*/", pageScript}});
}

std::string renderComparePage(const std::string& title, const std::string& data) {
    return filled(compareTemplate, {{"@TITLE@", escapedHtml(title)},
                                    {"/*@STYLE@*/", pageStyle},
                                    {"/*@COMMON_SCRIPT@*/", commonScript},
                                    {"/*@DATA@*/", data},
                                    {"/*@SCRIPT@*/", compareScript}});
}

std::string renderChartPage(const char* chartPageTemplate, const std::string& title, const std::string& style,
                            const std::string& script) {
    return filled(chartPageTemplate, {{"@TITLE@", escapedHtml(title)},
                                      {"/*@CHART_STYLE@*/", withoutSourceMap(chartStyle)},
                                      {"/*@STYLE@*/", style},
                                      {"/*@CHART_SCRIPT@*/", withoutSourceMap(chartScript)},
                                      {"/*@SCRIPT@*/", script}});
}

}  // namespace oltb::report
