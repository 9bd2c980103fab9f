// What the daemon answers. A request is untrusted bytes; whatever it holds, the answer is one reply.
#ifndef REPOSITORY_REQUESTS_H
#define REPOSITORY_REQUESTS_H

#include <memory>
#include <string>

#include "model.h"
#include "store.h"
#include "updates.h"

namespace repository {

struct Daemon {
	explicit Daemon(std::string path, std::unique_ptr<Store> its_store)
	    : file(std::move(path)), store(std::move(its_store)), updates(&model, store.get())
	{}
	// Reads the store.
	Failure load();

	const std::string file;
	Model model;
	const std::unique_ptr<Store> store;
	Updates updates;
};

// Answers one request. `modify` and `read` tell whether the caller may; they are asked when it matters.
void answer(Daemon *daemon, std::string_view request, bool (*read)(), bool (*modify)(), rpy::Writer *reply);

// The same for the call that the calling thread serves, which gets the answer. If it comes back, the reply couldn't be sent.
void serve_call(Daemon *daemon, std::string_view request, bool (*read)(), bool (*modify)());

} // namespace repository

#endif
