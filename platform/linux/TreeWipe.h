// Recursive removal of a file, a symbolic link (never its target) or a whole
// directory tree.
//
// The removal walks the tree depth-first through directory descriptors: every
// subdirectory is opened relative to its parent's descriptor without following
// a link, and every entry is removed relative to its parent's descriptor. No
// path is resolved again per entry, so a symbolic link swapped in for a
// directory during the walk is removed as a link and never followed out of
// the tree. The walk keeps its own stack (no recursion), so any depth works.
//
// Open descriptors: at most kTreeWipeOpenDirectories directories of the
// current branch are held open, fewer when the process runs out of
// descriptors (EMFILE/ENFILE), down to one. A closed ancestor is reopened on
// the way back up through ".." of its child and accepted only when its device
// and inode are the ones recorded on the way down; otherwise it is reopened
// from the root path, one recorded name at a time with the same check. A
// directory that cannot be reached again that way is reported with ESTALE and
// left in place together with what is still inside it.
//
// Mount points: a directory of the tree that is the root of a mount (a bind
// mount, another file system; the tree's root included) is never entered. It
// is reported with EXDEV and left in place with everything beneath it, so a
// mount inside the tree cannot make the removal delete files elsewhere.
//
// Error contract, modelled on the platform facility: a state object carries
// an error callback and its context. For every entry that cannot be removed
// (including one that vanished meanwhile, ENOENT) the removal sets the state's
// error number and calls the callback with the entry's path; the callback
// answers kTreeWipeProceed to go on with the rest of the tree or kTreeWipeStop.
// treeWipe returns 0 when every failure went to a callback that said proceed.
// It returns -1 with errno set when the root does not exist (ENOENT), when the
// root cannot be opened or looked at, when a callback said stop (errno is the
// number reported), or, without a callback, with the first error number other
// than ENOENT after removing everything else it could.
#pragma once

#include <cstddef>
#include <memory>

namespace platform::sys {

struct TreeWipeState;

inline constexpr int kTreeWipeProceed = 0;
inline constexpr int kTreeWipeStop = 1;

// Called with the state (whose error number is the failure's), the path of
// the entry that could not be removed and the installed context.
using TreeWipeErrorCallback = int (*)(TreeWipeState* state, const char* path, void* context);

// Flags of treeWipe.
inline constexpr unsigned kTreeWipeRecursive = 1U << 0;

inline constexpr std::size_t kTreeWipeOpenDirectories = 256;

struct TreeWipeStateDeleter {
  void operator()(TreeWipeState* state) const;
};
using TreeWipeStatePtr = std::unique_ptr<TreeWipeState, TreeWipeStateDeleter>;

// A new state without callback, or null (errno ENOMEM) when memory is short.
TreeWipeStatePtr treeWipeStateAlloc();

// Each returns 0, or -1 with errno EINVAL when there is no state.
int treeWipeStateSetErrorCallback(TreeWipeState* state, TreeWipeErrorCallback callback);
int treeWipeStateSetErrorContext(TreeWipeState* state, void* context);
// The error number of the failure being reported.
int treeWipeStateGetErrorNumber(const TreeWipeState* state, int* errorNumber);
// Sets the error number that a callback reads. The removal does this before
// each callback; a test can do it to drive a callback on its own.
int treeWipeStateSetErrorNumber(TreeWipeState* state, int errorNumber);

// Removes `path`. Without kTreeWipeRecursive a directory is removed only when
// it is empty. `state` may be null (no callback).
int treeWipe(const char* path, TreeWipeState* state, unsigned flags);

}  // namespace platform::sys
