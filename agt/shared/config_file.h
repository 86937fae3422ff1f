// A configuration file as the reader sees it: in pieces of at most 255 characters, the value of a
// key where the reader finds it, and where in the file that is. Read once: what is asked of it
// later is answered from the same bytes.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "config_keys.h"

namespace agt {

struct cfg_piece {
    std::string text; // with its line end
    int line;         // of the file, from 1
};

class config_file {
  public:
    // Reads the file. Empty on success, else why not, with errno.
    std::string open(const std::string& path);

    const std::string& path() const { return path_; }
    const std::vector<cfg_piece>& pieces() const { return pieces_; }
    int last_line() const { return pieces_.empty() ? 1 : pieces_.back().line; }

    // Index of the piece that the reader takes for the header of a section, or for the entry of a
    // key in it; -1: none.
    int header_of(const char* section) const;
    int entry_of(const config_key& key) const;

    // Word `n` of the value that the reader finds; empty without one.
    std::string word_of(const config_key& key, int n) const;

    // What is read for a key: its word, or all words with commas between them; empty without any.
    std::string value_of(const config_key& key) const;

    // The pieces that belong to the section whose header has this index: from `first` up to `end`.
    struct extent {
        int first;
        int end;
    };
    extent body_of(int header) const;

    const cfg_piece& at(int index) const { return pieces_[static_cast<std::size_t>(index)]; }

  private:
    struct closer {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    std::string path_;
    std::string bytes_;
    std::unique_ptr<std::FILE, closer> stream_; // over the bytes, for the reader
    std::vector<cfg_piece> pieces_;
};

// The first word of a line; empty without one.
std::string first_word(const std::string& line);

} // namespace agt
