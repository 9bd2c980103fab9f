// The JSON document in which objects leave the tool and come back. ostrel(1) describes it.
#ifndef OSTREL_TOOL_DOCUMENT_H
#define OSTREL_TOOL_DOCUMENT_H

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "failure.h"
#include "object.h"
#include "shared/json.h"

Json id_to_json(const Identifiers &id);
Json property_to_json(const Property &property);
Json object_to_json(const Object &object);

// Writes a document to the standard output while the objects come in.
class DocumentWriter {
public:
	DocumentWriter();
	void add(const Object &object);
	void finish();

private:
	bool first_ = true;
};

// A document that was read, with the place of each object in it. Bad elements are handed to `bad`, which may throw
// to end the reading; what is wrong with the document as a whole is thrown.
struct DocumentObject {
	Object object;
	std::string path;
};
std::vector<DocumentObject> read_document(std::istream &in, const std::function<void(const Failure &)> &bad);

#endif
