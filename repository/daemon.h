// What the daemon serves: a store, the tree that is kept of it in memory, and the updates of both.
#ifndef REPOSITORY_DAEMON_H
#define REPOSITORY_DAEMON_H

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
	// Opens the store and reads it into the model, before the first request.
	Failure load();

	const std::string file;
	Model model;
	const std::unique_ptr<Store> store;
	Updates updates;
};

} // namespace repository

#endif
