// The table that flows between search commands: rows of values over one
// shared table of field names, exchanged as CSV (optionally gzipped).
//
// Dialect written: a header line naming the columns, then one line per row,
// fields cut by "," and lines ended by "\n". A value made only of ASCII
// letters and digits is written bare; anything else is quoted with inner
// quotes doubled. An empty value is written `""`, a missing one as nothing,
// so the two survive a round trip. A quoted field may hold newlines.
//
// Multi-value fields: field `x` with several values has a companion column
// "__mv_x" holding `$v1$;$v2$`, with "$" doubled inside a value.
//
// Blank lines between records are skipped, so with a single column a row
// that has no value at all does not survive a round trip.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "util/FileDescriptor.h"
#include "util/FileStar.h"
#include "util/LineReader.h"
#include "util/Pathname.h"
#include "util/Str.h"
#include "util/StrSegment.h"
#include "util/StrVector.h"

class SearchResults;
class Timeval;
class WritableGzipFileDescriptor;

// One row. Values are owned pointers indexed by column index minus one; a
// null slot (or a slot past the row's end) means the row has no value there.
class SearchResult {
 public:
  explicit SearchResult(SearchResults* parent) : _parent(parent) {}
  ~SearchResult();
  SearchResult(const SearchResult&) = delete;
  SearchResult& operator=(const SearchResult&) = delete;

  SearchResults* parent() const { return _parent; }
  size_t slotCount() const { return _values.size(); }

  // False when the row has no value at `index` (0 is never a column).
  bool getValue(size_t index, Str& out) const;
  bool getValue(const Str& name, Str& out) const;
  // The stored value, or nullptr; no copy.
  const Str* valuePtr(size_t index) const;
  void setValue(size_t index, const StrSegment& value);
  void setValue(const Str& name, const StrSegment& value);
  // Takes ownership of `value` (may be null to clear the slot).
  void usurpValue(size_t index, Str* value);
  void removeValue(size_t index);

  // The decoded companion column when there is one, else the plain value as
  // the single entry. A corrupt companion is logged and gives an empty list;
  // the result is true whenever the row has either value.
  bool getMultiValues(size_t index, StrVector& out) const;
  // Sets the companion column and the plain column (values joined by
  // `separator`); one value sets only the plain column.
  void setMultiValues(const Str& name, const StrVector& values, const StrSegment& separator);
  // Sets only the companion column.
  void setOnlyMultiValues(const Str& name, const StrVector& values);

  // The value at `index` (default: the "_time" column) read as epoch
  // seconds with up to six fraction digits, more being truncated:
  // "1700000000.5" gives {1700000000, 500000}, "-1.25" gives {-2, 750000}.
  // False, `out` untouched, for a missing value or any other text ("",
  // "12abc", "1e9", ".5").
  bool getTimeval(Timeval& out, size_t index = 0) const;

  // A number mixing every present value with its column index; rows with
  // the same values in the same columns hash equal.
  uint64_t hash() const;

  // Fills this row from one CSV record. `columns[i]` is the column index of
  // the i-th CSV field (0: drop it). Returns the number of fields seen, or
  // 0 with a log line when the record is corrupt.
  size_t parseCSVLine(const StrSegment& line, const std::vector<size_t>& columns);

 private:
  friend class SearchResults;
  SearchResults* _parent;
  std::vector<Str*> _values;
};

// Sink for CSV bytes.
class CSVWriter {
 public:
  virtual ~CSVWriter() = default;
  // False on failure, with errno set.
  virtual bool write(const StrSegment& bytes) = 0;
  virtual bool finish() { return true; }
};

// Writes to a borrowed descriptor.
class CSVFileWriter : public CSVWriter {
 public:
  explicit CSVFileWriter(FileDescriptor fd) : _fd(fd) {}
  bool write(const StrSegment& bytes) override;

 private:
  FileDescriptor _fd;
};

// Compresses into a borrowed descriptor. finish() ends the gzip member
// once; later calls give the first one's result.
class CSVGZWriter : public CSVWriter {
 public:
  explicit CSVGZWriter(FileDescriptor fd);
  ~CSVGZWriter() override;
  bool write(const StrSegment& bytes) override;
  bool finish() override;

 private:
  WritableGzipFileDescriptor* _gz;
  bool _finished = false;
  bool _finishedOk = false;
};

// Collects into a string.
class CSVStrWriter : public CSVWriter {
 public:
  explicit CSVStrWriter(Str& out) : _out(out) {}
  bool write(const StrSegment& bytes) override {
    _out.append(bytes);
    return true;
  }

 private:
  Str& _out;
};

// Owns a file and one writer on it; gzip is picked by a ".gz" name unless
// told. An empty name is logged and leaves the writer unusable (valid()
// false).
class ScopedCSVWriter : public CSVWriter {
 public:
  explicit ScopedCSVWriter(const Pathname& path);
  ScopedCSVWriter(const Pathname& path, bool gzip);
  ~ScopedCSVWriter() override;
  ScopedCSVWriter(const ScopedCSVWriter&) = delete;
  ScopedCSVWriter& operator=(const ScopedCSVWriter&) = delete;

  bool valid() const { return _writer != nullptr; }
  bool write(const StrSegment& bytes) override;
  bool finish() override;

 private:
  void open(const Pathname& path, bool gzip);
  ScopedFileDescriptor _fd;
  CSVWriter* _writer = nullptr;
};

class SearchResults {
 public:
  SearchResults() = default;
  ~SearchResults();
  SearchResults(const SearchResults&) = delete;
  SearchResults& operator=(const SearchResults&) = delete;

  // Column index of `name` (from 1); 0 when absent and not created.
  size_t keyIndex(const Str& name, bool create);
  size_t keyIndex(const Str& name) const;
  void keyIndexes(const StrVector& names, std::vector<size_t>& out);
  // "" for an unknown index.
  const Str& getKeyFromIndex(size_t index) const;
  size_t keyCount() const { return _keys.size(); }
  // The index of "__mv_" + the field's name, or 0 when there is none.
  size_t getMVIndex(size_t index) const;
  // Drops the column from the table and every row; later columns move down.
  bool removeKey(const Str& name);
  // False when `oldName` is absent or `newName` is taken.
  bool renameKey(const Str& oldName, const Str& newName);

  size_t size() const { return _rows.size(); }
  bool empty() const { return _rows.empty(); }
  SearchResult* operator[](size_t i) const { return _rows[i]; }

  SearchResult* addNewResult();
  // Takes ownership of a row made for this table.
  void usurpNewResult(SearchResult* row);
  // Moves row `i` of `other` (its values, without copying) to the end of
  // this table, mapping columns by name. The row leaves `other`.
  void moveResult(SearchResults& other, size_t i);
  // Copies `count` rows of `other` from `start` (clamped).
  void append(const SearchResults& other, size_t start = 0, size_t count = SIZE_MAX);
  // Moves every row of `other` here, leaving it empty.
  void appendDestructive(SearchResults& other);
  // Deletes the rows at the given ascending indexes.
  void eraseResults(const std::vector<size_t>& sortedIndexes);
  // Keeps only `count` rows from `start`.
  void slice(size_t start, size_t count);
  // Replaces this table by a copy of `other` (with its rows when `rows`).
  void clone(const SearchResults& other, bool rows);
  // Replaces this table by `other`'s contents without copying values;
  // `other` is left empty (its keys too, unless `keepKeys`).
  void usurp(SearchResults& other, bool keepKeys);
  // Deletes every row and forgets the columns and the column order.
  void freeAll();

  // Columns written when the caller names none: the names given here that
  // exist, in this order, then every other column in table order. Names
  // that do not exist are kept, and take their place once they do.
  void setColumnOrder(const StrVector& names) { _columnOrder = names; }
  void getColumnOrder(StrVector& out) const;
  // Drops every column that no row has a value in, and trims rows of
  // trailing empty slots. Returns the number of columns dropped.
  size_t collapse();

  // +1 when the `_time` values never decrease (all equal included), -1
  // when they never increase and some decrease, 0 when mixed or fewer
  // than two times.
  int guessTimeOrder() const;

  // CSV. Reading appends `count` records from record `start`; `external`
  // drops columns whose names are internal ("_"-prefixed names other than
  // "_raw" and "_time", and "__mv_" companions stay allowed). Returns false
  // when the header cannot be parsed (logged, with
  // lastErrorKey() "SEARCHRESULTS_CSV_HEADER_PARSE_FAIL") or the file cannot
  // be read.
  bool fromCSV(const Str& text, size_t start = 0, size_t count = SIZE_MAX, bool external = false);
  bool fromCSV(const Pathname& path, size_t start = 0, size_t count = SIZE_MAX,
               bool external = false);
  // Reads records from the reader's position on, a record spanning
  // physical lines while a quote is open.
  bool fromCSV(LineReader& reader, size_t start = 0, size_t count = SIZE_MAX,
               bool external = false);
  // One record into `out`: physical lines joined by "\n" while a quote is
  // open ("!inquote" holds at the end of a complete record), carriage
  // returns kept. False at the end of the input.
  static bool readCSVLine(LineReader& reader, Str& out);
  // Reads from the stream's position; the stream stays the caller's, open.
  bool fromCSV(FileStar f, size_t start = 0, size_t count = SIZE_MAX, bool external = false);
  // Writes `fields` (all keys when empty, each with its "__mv_" companion
  // next to it) and `count` rows. With `header` false only the records.
  bool toCSV(CSVWriter& out, const StrVector& fields = StrVector(), size_t count = SIZE_MAX,
             bool header = true, bool dropCR = false) const;
  bool toCSV(Str& out, const StrVector& fields = StrVector(), size_t count = SIZE_MAX,
             bool header = true, bool dropCR = false) const;
  // Plain CSV to a borrowed descriptor, from its current offset; false
  // with errno set when a write fails.
  bool toCSV(FileDescriptor fd, const StrVector& fields = StrVector(), size_t count = SIZE_MAX,
             bool header = true, bool dropCR = false) const;
  // Atomic: writes "<path>.tmp" (gzipped when the name ends in ".gz"),
  // retrying, then renames it onto `path`.
  bool toCSV(const Pathname& path, const StrVector& fields = StrVector(),
             size_t count = SIZE_MAX, bool header = true, bool dropCR = false) const;

  // Writes the rows in memory and then those of every listed file, in
  // order, to one CSV at `path` (atomically, as toCSV); the columns are
  // all those seen, in the order first seen. The files stay as they are.
  bool writeAllToCSV(const Pathname& path);

  // Cuts the CSV at `path` into files of `chunkSize` records beside it,
  // each with the header, named "srsplit_<n>_<name>" (same extension, so
  // gzipped when the source is). The new names go to `out`. False, with
  // lastErrorKey() "SEARCHRESULTS_SPLITFILE_WRITE_FAIL__<name>", when a
  // piece cannot be written; pieces already written are removed.
  bool splitFile(const Pathname& path, size_t chunkSize, std::vector<Pathname>& out);

  // Backing files. Rows can be spilled to files in a private temporary
  // directory "<parent>/srtemp_XXXXXX" and read back one file at a time.
  // False, logged "Could not create directory \"%s\": %m", on failure.
  bool createTempDir(const Pathname& parent);
  const Pathname& tempDir() const { return _tempDir; }
  // "srfiletmp_" and 16 random hex digits, then ".csv", or ".csv.gz" when
  // `gzip`: "srfiletmp_3f09c2a17b44e0d5.csv.gz". Never the same twice in
  // practice; no file is touched.
  static Str getRandomFileName(bool gzip);
  // Creates a new empty file of a random name (as above) inside `dir`,
  // never one that exists already (a name taken meanwhile is drawn again),
  // and sets `out` to it. False, errno set and `out` untouched, when the
  // directory refuses it. The file is the caller's: it is not in the file
  // list until addFile.
  static bool createNewFileInDir(const Pathname& dir, bool gzip, Pathname& out);
  // Writes the rows to a new "srtmpfile_<n>.csv.gz" in the temporary
  // directory (created under $TMPDIR or /tmp if there is none), adds it to
  // the file list and frees the rows (the columns stay). False, rows kept,
  // when it cannot be written.
  bool writeFile();
  // The current file: rows are appended to it a batch at a time and it
  // joins the file list when closed. openFile fails (logged "Unable to
  // open output file: path=%s error=%m") when it cannot be created or a
  // file is open already. appendCSV writes the rows in memory and frees
  // them; the first batch fixes the columns (a header line), and later
  // batches write those columns by name. closeFile finishes the file
  // (false when a write failed). A file still open when the table dies is
  // logged "CSV File still open at SearchResults destructor." and closed.
  bool openFile(const Pathname& path);
  bool appendCSV();
  bool closeFile();
  bool hasOpenFile() const { return _openWriter != nullptr; }
  // Keeps the listed files on disk for debugging: removeFiles() then logs
  // "For debugging, temporary file not deleted: %s" for each instead.
  void setKeepFiles(bool keep) { _keepFiles = keep; }
  // Appends `path` to the file list; it is deleted with the others unless
  // marked copy-on-write.
  void addFile(const Pathname& path) { _files.push_back(path); }
  const std::vector<Pathname>& files() const { return _files; }
  // Files shared with another table: never deleted here; each one left is
  // logged "Copy on write file not deleted: %s".
  void setCowFiles(bool cow) { _cowFiles = cow; }
  // Frees the rows and reads the next listed file; false after the last.
  bool nextFile();
  // Appends the rows of `path`.
  bool readFile(const Pathname& path) { return fromCSV(path); }
  // Unlinks one file (unless copy-on-write) and drops it from the list.
  // False, logged "Error deleting file: %s", when it cannot be removed.
  bool deleteFile(const Pathname& path);
  // Deletes every listed file and the temporary directory. A directory
  // whose name is not one of ours is refused and logged "in
  // _removeDirs(), not a temporary directory: %s".
  void removeFiles();

  // The companion column of a multi-valued field "x" is MV_PREFIX + "x".
  static constexpr char MV_PREFIX[] = "__mv_";
  static constexpr size_t MV_PREFIX_LEN = sizeof(MV_PREFIX) - 1;

  // The message key of the last failure, "" when none.
  const Str& lastErrorKey() const { return _lastErrorKey; }

  // Two-state scan of a companion value; false (and `out` cleared) when
  // something other than ";" sits between values.
  static bool decodeMV(const StrSegment& text, StrVector& out);
  static void encodeMV(const StrVector& values, Str& out);
  // Appends one CSV field.
  static void csvEscape(const StrSegment& in, Str& out, bool dropCR);
  // Cuts one record into fields; `present[i]` false for an empty unquoted
  // field (a missing value). False for a corrupt record.
  static bool splitCSVLine(const StrSegment& line, StrVector& fields, std::vector<bool>& present);
  // True while a quote that opened a field of the record `text` is still
  // open at its end: `"a,b` and `"a""` are open; `a"b` (a quote inside a
  // bare field is data), `"a"` and `""` are not.
  static bool inQuote(const StrSegment& text);

  // "maxresultrows" in limits stanza "searchresults".
  static size_t getMaxResultRows(bool reload = false);
  static unsigned getToCSVMaxRetry();
  static unsigned getToCSVRetryPeriodMs();

 private:
  friend class SearchResult;
  void genFieldList(const StrVector& fields, std::vector<size_t>& out) const;
  bool readCSVHeader(const StrSegment& line, std::vector<size_t>& columns, bool external);
  bool fromText(const Str& text, const char* source, size_t start, size_t count, bool external);
  bool fromRecords(const std::function<bool(Str&)>& nextRecord, const char* source, size_t start,
                   size_t count, bool external);
  bool writeOnce(const Pathname& tmp, const Str& bytes, bool gzip) const;

  std::vector<SearchResult*> _rows;
  StrVector _keys;
  std::map<Str, size_t> _keyMap;
  StrVector _columnOrder;
  Pathname _tempDir;
  std::vector<Pathname> _files;
  size_t _nextFile = 0;
  size_t _fileSeq = 0;
  bool _cowFiles = false;
  bool _keepFiles = false;
  std::unique_ptr<ScopedCSVWriter> _openWriter;
  Pathname _openPath;
  StrVector _openColumns;
  bool _openFailed = false;
  mutable Str _lastErrorKey;
};

// Walks the rows of a table that outlives it. The table must not gain or
// lose rows during the walk. One owner at a time.
class SearchResultIterator {
 public:
  explicit SearchResultIterator(const SearchResults& results) : _results(results) {}
  // The next row, or nullptr after the last.
  SearchResult* next();
  void reset() { _pos = 0; }

 private:
  const SearchResults& _results;
  size_t _pos = 0;
};

// Builds rows from a stream of tokens: each token fills the next of the
// given columns, and endRow() appends the row. A row that received no
// token is not appended; tokens past the last column are dropped and
// counted. One owner at a time; the table must outlive it.
class SearchResultInserter {
 public:
  SearchResultInserter(SearchResults& results, const StrVector& columns);
  ~SearchResultInserter();
  SearchResultInserter(const SearchResultInserter&) = delete;
  SearchResultInserter& operator=(const SearchResultInserter&) = delete;

  void processToken(const Str& token);
  // False when the row was empty and nothing was appended.
  bool endRow();
  size_t droppedTokens() const { return _dropped; }

 private:
  SearchResults& _results;
  std::vector<size_t> _columns;
  SearchResult* _row = nullptr;
  size_t _next = 0;
  size_t _dropped = 0;
};

// Lines of a file by name, through a gzip stream when it ends in ".gz".
// Check valid(); a missing file is logged "Error while reading %s: %m".
class FileBackedLineReader : public LineReader {
 public:
  explicit FileBackedLineReader(const Pathname& path);
  ~FileBackedLineReader() override;

  bool readline(Str& out) override;
  bool readlineKeepCR(Str& out) override;
  bool rewind() override;
  void close() override;
  bool valid() const override;
  file_offset_t curPos() const override;
  bool seek_set(file_offset_t offset) override;

 private:
  std::unique_ptr<LineReader> _reader;
};
