// The JSON document of export and import. ostrel(1) describes it. Reading is strict: an unknown or doubled key, a number out of
// range or a type that doesn't exist is an error with its place, never a guess, since a guess would be stored.
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

// Writes a document to the standard output, object by object.
class DocumentWriter {
public:
	DocumentWriter();
	void add(const Object &object);
	void finish();

private:
	bool first_ = true;
};

// Reads a document. Each bad object is passed to `bad`, which may throw to end the reading; a fault of the document as a whole
// is thrown.
struct DocumentObject {
	Object object;
	std::string path; // its place in the document, a JSON pointer
};
std::vector<DocumentObject> read_document(std::istream &in, const std::function<void(const Failure &)> &bad);

#endif
