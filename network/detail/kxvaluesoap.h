#ifndef VELMO_NETWORK_DETAIL_KXVALUESOAP_H_
#define VELMO_NETWORK_DETAIL_KXVALUESOAP_H_

#include <string>
#include <vector>

#include "value/kxvalue.h"

namespace tinyxml2 {
class XMLElement;
}  // namespace tinyxml2

namespace KX {

// The SOAP form of a KXValue: every value is an `item` element whose `xsi:type` names its
// kind, written as raw XML inside the enclosing element of a message (`kxbroker:p`,
// `kxbroker:return`). Binary bytes do not travel in the XML: a Binary is written as the
// placeholder "MQ==" and its bytes go as DIME attachments, one per Binary leaf in walk
// order (depth first, array elements in index order), see collectBinaryLeaves and
// attachBinaryLeaves.
//
// Every function here is reentrant; none keeps a reference to its arguments.
// Failures raise KXError with the module name "KXValue".

// Deepest nesting of `item` elements that is written or read (the top-level item is level
// 1). The XML parser refuses documents nested 99 elements deep, and a message puts four
// levels (envelope, body, operation, enclosing element) above the value, so a deeper value
// could be sent but never read. The limit also keeps hostile input from exhausting the
// stack.
constexpr int kKXValueMaxDepth = 64;

// Appends the XML text of `value` to `out`. `nested` is false for the top-level value (an
// Invalid one writes nothing) and true for array elements (an Invalid one writes the nil
// item). Strings are escaped so that the parser gives back the same bytes:
//   - & < > " ' become entities;
//   - CR and the control characters 0x01-0x1F other than TAB and LF become numeric
//     character references ("&#xD;"), as the SOAP runtime writes them, so that line-end
//     normalisation cannot alter them (strict XML 1.0 forbids the references below 0x20
//     other than TAB, LF and CR; both our parser and the SOAP runtime accept them);
//   - a string made only of blanks, tabs and line feeds gets its first character as a
//     reference, because the parser drops text nodes that are all white space;
//   - bytes from 0x80 up are copied unchanged (strings carry no encoding).
//   A NUL cannot be carried by XML at all: NULs that end the string (the terminator that a
//   Binary-to-String conversion leaves) are dropped, and a NUL followed by further text
//   raises "String holds a NUL character at byte <n>, which XML cannot carry"
//   (method "writeKXValue").
// Nesting deeper than kKXValueMaxDepth raises "value too deeply nested (more than 64
// levels)". On any error `out` is restored to its size on entry, so a failed write never
// leaves a half-written value behind.
void writeKXValue(const KXValue& value, std::string& out, bool nested);

// Fills `value` from a parsed `item` element (or from a SOAP fault element, which raises
// KXError("KXValue", "Receving Fault response: ", "Fault: '<name>': ...")). `typeHint` is
// the element type declared by an enclosing array, 0 when there is none. Attribute names
// are matched literally ("xsi:type", "SOAP-ENC:arrayType", "n2:arrayType"): the prefixes
// must be those, whatever namespaces they are bound to. Malformed numbers read as 0;
// nesting deeper than kKXValueMaxDepth raises "value too deeply nested (more than 64
// levels)" (method "readKXValue"). After a failure `value` holds whatever was read so far.
void readKXValue(const tinyxml2::XMLElement& element, KXValue& value, int typeHint);

// The type code of an `xsi:type` name, first match wins: "xsd:string" String, "xsd:int"
// Int, "xsd:double" and "xsd:float" Float, any name containing "bool" Bool,
// "xsd:base64Object" Object, "xsd:base64Binary" Binary, any name containing "Array" Array,
// anything else (null included) Invalid.
int xsdTypeToType(const char* name);

// Parses an XML fragment and reads its first top-level element into `value`; a fragment
// without an element (the form of a top-level Invalid) gives Invalid. A parse error raises
// "XML parse error: <parser's message>" (method "readKXValueFromXml").
void readKXValueFromXml(const std::string& xml, KXValue& value);

// Appends to `out` a pointer to each Binary leaf of `value`, in walk order. The pointers
// stay valid while `value` is neither modified nor destroyed. Nesting deeper than
// kKXValueMaxDepth raises "value too deeply nested (more than 64 levels)" (method
// "collectBinaryLeaves").
void collectBinaryLeaves(const KXValue& value, std::vector<const KXValue*>& out);
void collectBinaryLeaves(KXValue& value, std::vector<KXValue*>& out);

// Gives the k-th Binary leaf of `value` the bytes of `attachments[k]`, moving each buffer
// into its leaf (no byte is copied; the vector is left holding the replaced bytes). The
// number of attachments must equal the number of Binary leaves, else "expected <n>
// attachment(s) for the Binary values, received <m>" (method "attachBinaryLeaves") is
// raised and `value` is left unchanged. A message that came without attachments is not
// meant to go through here: its leaves keep the bytes of their XML form.
void attachBinaryLeaves(KXValue& value, std::vector<KXValue::TKXValueBinary>&& attachments);

}  // namespace KX

#endif  // VELMO_NETWORK_DETAIL_KXVALUESOAP_H_
