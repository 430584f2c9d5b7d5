#pragma once

#include <string>
#include <vector>

namespace one_call {

struct Request {
  bool compat = false;  // as a 32-bit program
  int dirfd = -100;     // AT_FDCWD, or the open folder that relative names are relative to
  int fd = -1;          // for calls on a descriptor: one of the named object
  std::string name;
  std::string argument;  // the other name, the target of a symbolic link
};

// Where a call takes its names from.
enum class Forms {
  kNames,       // absolute, or relative to the working folder
  kAt,          // as kNames, and relative to an open folder
  kDescriptor,  // the object itself is open
};

// What must be there before: at the name, and at the argument.
enum class Scene { kNothing, kFile, kMarkedFile, kFolder, kLink, kTwoFiles, kArgumentFile };

// The events of a call, as words: Create, Write, Read, Change and Delete of the name, Rename of the name to the
// argument. Back is a rename of the argument to the name, Over a Delete of the argument, Target a Change of what a link
// leads to.
// A Read is owed only of somebody who is logged in. "#" behind a word: the object's old name is in no record, its inode
// stands for it. "+" behind one: it is told by a rule of extended coverage for calls that no watch permission covers,
// which need not hold for 32-bit programs.
struct Call {
  std::string name;
  Forms forms;
  Scene scene;
  std::string events;           // by the watch alone
  std::string extended_events;  // with everything that extended coverage adds
  int compat_number;            // -1: 32-bit programs have no such call
  long (*run)(const Request&);
  int open_flags = 0;  // kDescriptor: how the object is opened before
};

const std::vector<Call>& AllCalls();
const Call& CallNamed(const std::string& name);

}  // namespace one_call
