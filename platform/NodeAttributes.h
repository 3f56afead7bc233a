/// Attributes of a node in one of the framework's XML files.
#pragma once

#include <map>
#include <string>

namespace vok {

using NodeAttributes = std::map<std::string, std::string>;

/// Reads the attributes of the first element, in the order of the text and at any depth, whose tag
/// is `strNode` or whose attribute "name" is. Tags may begin with a digit, as the platform's own
/// files have it, though XML forbids that.
///
/// False, and `attributes` is empty, when there is no such element, or when the file cannot be read
/// or is no XML. Blocks while it reads.
bool ParseNodeAttrFromXml(const std::string& strFile, const std::string& strNode,
                          NodeAttributes& attributes);

/// The same, of a text instead of a file.
bool ParseNodeAttr(const std::string& strXml, const std::string& strNode,
                   NodeAttributes& attributes);

}  // namespace vok
