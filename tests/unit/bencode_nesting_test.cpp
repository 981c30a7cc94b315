// Nesting as deep as a file within the size limit can hold is read, written, copied,
// compared and freed on a thread with a small stack: no operation on a tree may recurse
// once per level.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>

#include "Bencode.h"
#include "TestSupport.h"

namespace {

class BencodeNestingTest : public pwtest::HostFixture {};

// Instrumented and emulated builds run many times slower: there the depth is cut to one
// that still lies far beyond what a recursive walk survives on the same stack (about 2 000
// levels on 256 KiB), unless PW_NESTING_FULL is set in the environment.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__i386__)
const unsigned int kReducedScale = 20;
#else
const unsigned int kReducedScale = 1;
#endif

const size_t kStackBytes = 256 * 1024;

enum class Shape { Lists, Dictionaries, Alternating };

bool IsDictionary(Shape shape, unsigned int level) {
    return shape == Shape::Dictionaries || (shape == Shape::Alternating && level % 2 == 1);
}

// `depth` containers, each holding only the next (under the empty key in a dictionary),
// the innermost holding the integer 1.
std::string Nested(Shape shape, unsigned int depth) {
    std::string text;
    text.reserve(static_cast<size_t>(depth) * 4 + 3);
    for (unsigned int level = 0; level < depth; ++level) {
        text += IsDictionary(shape, level) ? "d0:" : "l";
    }
    text += "i1e";
    text.append(depth, 'e');
    return text;
}

struct Job {
    std::string path;
    Shape shape;
    unsigned int depth;
    // Outcomes, checked on the test's thread.
    EBencodeResult loaded = eBencodeFileError;
    std::string written;
    bool copied = false, equal = false, equalAfterChange = true;
};

// Loads the file, writes the tree, reads the written form into a copy, compares the two,
// changes the copy's innermost value and compares again; both trees are freed on return.
void* HandleTree(void* argument) {
    Job& job = *static_cast<Job*>(argument);
    const bool dictionary = job.shape == Shape::Dictionaries;
    errno = 0;
    std::unique_ptr<CBencode> tree, copy;
    std::unique_ptr<CBencodeStream> stream;  // a list leaves its stream to its creator
    if (dictionary) {
        tree.reset(new CBencodeDictionary(job.path, job.loaded, false));
        copy.reset(new CBencodeDictionary(false));
    } else {
        tree.reset(new CBencodeList(job.path, job.loaded, false));
        stream.reset(static_cast<CBencodeList&>(*tree).GetStream());
        copy.reset(new CBencodeList(false));
    }
    CBencodeStream out("", false);
    if (tree->Externalize(out)) {
        job.written.assign(out.Data(), out.Size());
    }
    job.copied = copy->Internalize(out);
    job.equal = *tree == *copy;
    CBencode* node = copy.get();
    for (unsigned int level = 0; level < job.depth && node != nullptr; ++level) {
        node = IsDictionary(job.shape, level)
                   ? static_cast<CBencodeDictionary*>(node)->Entries().begin()->second
                   : (*static_cast<CBencodeList*>(node))[0];
    }
    if (node != nullptr && node->Set(2LL)) {
        job.equalAfterChange = *tree == *copy;
    }
    return nullptr;
}

TEST_F(BencodeNestingTest, DeepestFileIsHandledOnASmallStack) {
    // Depths that fill a file of about 10 MB.
    // clang-format off
    const struct { Shape shape; const char* name; unsigned int depth; } rows[] = {
        {Shape::Lists,        "lists",        5000000},
        {Shape::Dictionaries, "dictionaries", 2500000},
        {Shape::Alternating,  "alternating",  3300000},
    };
    // clang-format on
    pwtest::TempDir dir;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Job job;
        job.path = dir / (std::string(row.name) + ".cef");
        job.shape = row.shape;
        job.depth = row.depth / (getenv("PW_NESTING_FULL") != nullptr ? 1 : kReducedScale);
        const std::string input = Nested(row.shape, job.depth);
        ASSERT_LE(input.size(), MAX_BENCODE_FILE_SIZE);
        ASSERT_TRUE(pwtest::WriteFile(job.path, input));

        pthread_attr_t attributes;
        pthread_t thread;
        ASSERT_EQ(0, pthread_attr_init(&attributes));
        ASSERT_EQ(0, pthread_attr_setstacksize(&attributes, kStackBytes));
        ASSERT_EQ(0, pthread_create(&thread, &attributes, HandleTree, &job));
        ASSERT_EQ(0, pthread_join(thread, nullptr));
        pthread_attr_destroy(&attributes);
        EXPECT_EQ(eBencodeSuccess, job.loaded);
        EXPECT_TRUE(job.written == input) << "the written form differs from the file";
        EXPECT_TRUE(job.copied && job.equal);
        EXPECT_FALSE(job.equalAfterChange) << "the innermost difference went unnoticed";
        EXPECT_TRUE(pwtest::CapturedLogs().empty()) << DumpLog();
    }
}

}  // namespace
