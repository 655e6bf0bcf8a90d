#ifndef VELMO_VALUE_TEXTCODING_H_
#define VELMO_VALUE_TEXTCODING_H_

#include <string>
#include <string_view>

namespace KX {

// Small text codings that the value forms, the pages and the HTTP side share. Reentrant.

// The value of a hexadecimal digit (either case), or -1.
int hexDigitValue(char c);

// Appends the character reference "&#x<hex>;" of `c`, in upper case without leading zeros
// ("&#x9;", "&#x1F;"), as the SOAP runtime writes it.
void appendCharReference(std::string& out, unsigned char c);

// What appendXmlEscaped writes as entities or references besides &, < and >.
enum XmlEscapes : unsigned {
  kEscapeQuotes = 1,    // " and ' as &quot; and &apos;: safe in quoted attributes too
  kEscapeControls = 2,  // the control characters but tab and line feed, and DEL, as
                        // character references, as the SOAP runtime writes element text
};

// Appends `text` with &, < and > written as entities, and what `escapes` asks for.
void appendXmlEscaped(std::string& out, const std::string& text, unsigned escapes);

// `text` with the five XML special characters written as entities (&amp; &lt; &gt; &quot;
// &apos;): safe inside element text and quoted attributes, in XML and in HTML.
std::string escapeXml(const std::string& text);

// `text` with each "%XX" (two hexadecimal digits) replaced by that byte, once: "%252E" is
// "%2E", not ".". Other '%' and '+' are kept.
std::string percentDecode(const std::string& text);

// `text` without the spaces and tabs around it (a view into `text`).
std::string_view trimBlanks(std::string_view text);

// True when `a` and `b` are the same text but for the case of ASCII letters.
bool sameLetters(std::string_view a, std::string_view b);

}  // namespace KX

#endif  // VELMO_VALUE_TEXTCODING_H_
