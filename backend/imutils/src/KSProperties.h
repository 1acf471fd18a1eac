#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "KSProperty.h"
#include "RhExport.h"

// An insertion-ordered set of name=value entries, read from and written to properties files.
// Names compare as exact bytes. Copying copies every entry; moving leaves the source empty.
// Not synchronised: one thread at a time per instance.
//
// File syntax read by load(): one entry per line (lines longer than 65,535 bytes are read in
// pieces, each a line of its own); blank lines and lines whose first non-blank character is '#'
// are comments; the name is the trimmed text before the first '=', the value the text after
// it with every '"' turned into a blank and then trimmed. Lines without '=' or with an empty name
// are ignored. A repeated name overrides the earlier value in the earlier position.
//
// Every const char* argument must not be null; a null throws KSAssertionException naming the
// argument ("name", "value", "filename").
class RH_EXPORT KSProperties {
  public:
    using const_iterator = std::vector<KSProperty>::const_iterator;

    KSProperties() = default;
    KSProperties(const KSProperties&) = default;
    KSProperties& operator=(const KSProperties&) = default;
    KSProperties(KSProperties&& other) noexcept;
    KSProperties& operator=(KSProperties&& other) noexcept;
    ~KSProperties() = default;

    // Adds the entries of the file to the set. Returns false, leaving the set unchanged, when the
    // file cannot be opened.
    bool load(const char* filename);

    // Writes every entry as name="value" and a newline, in list order, truncating the file. No
    // escaping: a value with a '"' reads back with a blank in its place. Returns true, or false
    // when the data could not all be written (a full file system). Throws KSAssertionException
    // ("f", "could not open <filename> in KSProperties::write") when the file cannot be opened.
    bool write(const char* filename) const;

    // The entries as write() puts them into a file (for KSStateFile::replace).
    std::string text() const;

    // The value of the first entry called name, or null when there is none. The pointer stays
    // owned by the set and is valid until that entry changes or the set changes shape.
    const char* getProperty(const char* name) const;

    // Replaces the value of the first entry called name, else appends a new entry.
    void setProperty(const char* name, const char* value);

    // Removes the first entry called name; absent names are ignored.
    void remove(const char* name);

    void clear() { entries_.clear(); }
    size_t size() const { return entries_.size(); }
    bool empty() const { return entries_.empty(); }
    // The i-th entry in list order; i must be below size().
    const KSProperty& at(size_t i) const { return entries_.at(i); }
    const_iterator begin() const { return entries_.begin(); }
    const_iterator end() const { return entries_.end(); }

    // Text helpers used by load(); each works in place on a writable NUL-terminated text.
    // The first non-white-space character of p (isspace), or its terminating NUL.
    static char* skipWhiteSpaces(char* p);
    // Skips leading white space and overwrites trailing white space with NULs; returns the start.
    static char* trim(char* p);
    // Replaces every character from in p by to; returns p.
    static char* replace(char* p, char from, char to);
    // Finds separator from p; null when there is none. Otherwise overwrites it with NUL, moves p
    // past it and returns the trimmed text before it.
    static char* getNextValue(char*& p, char separator);

  private:
    void parseLine(char* line);
    KSProperty* find(const char* name);

    std::vector<KSProperty> entries_;
};
