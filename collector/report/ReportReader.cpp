#include "report/ReportReader.h"

#include <cstring>
#include <vector>

#include "BencodeEvents.h"
#include "BencodeJson.h"

namespace collector {

BencodeReadLimits ReportReadLimits() {
    return BencodeReadLimits{kMaxReportBytes, kMaxReportBytes, kMaxReportDepth, kMaxReportValues,
                             false};
}

namespace {

std::string Offset(size_t offset) {
    return "offset " + std::to_string(offset);
}

// Why the reader refused `report`, from what its buffer noted.
std::string RefusalReason(CBencodeBuffer& buffer, const std::string& report) {
    switch (buffer.LimitHit()) {
        case EBencodeLimit::StringLength:
            return "not valid bencode: a string at " + Offset(buffer.InvalidByte()) +
                   " is longer than the limit of " + std::to_string(kMaxReportBytes) + " bytes";
        case EBencodeLimit::Depth:
            return "nested deeper than " + std::to_string(kMaxReportDepth) + " levels";
        case EBencodeLimit::Values:
            return "more than " + std::to_string(kMaxReportValues) + " values";
        case EBencodeLimit::None:
            break;
    }
    if (buffer.Eof() || buffer.InvalidByte() == std::string::npos) {
        return "not valid bencode: the report ends at " + Offset(report.size()) + " inside a value";
    }
    return "not valid bencode: the first invalid byte is at " + Offset(buffer.InvalidByte());
}

// Tells the JSON writer what the bencode reader finds, as it finds it, and notes whether
// every value read and every dictionary's keys came in strictly increasing order (the
// order the tree would write them in).
class JsonPrinter : public CBencodeReadHandler {
public:
    explicit JsonPrinter(bencodejson::StreamWriter& out)
        : m_out(out), m_integer(0LL), m_string(std::string()), m_scalar(&m_string) {}

    void Open(bool dictionary) override {
        m_out.Open(dictionary);
        m_open.emplace_back();
    }
    void Close(bool ok) override {
        m_ok = m_ok && ok;
        m_out.Close();
        m_open.pop_back();
    }
    bool Key(std::string& key) override {
        Container& container = m_open.back();
        if (container.keyed && key <= container.lastKey) {
            m_ok = false;
        }
        m_out.Key(key);
        container.lastKey = key;
        container.keyed = true;
        return true;
    }
    CBencode& Scalar(CBencode::EContentType type) override {
        m_scalar = type == CBencode::eBencodeInteger ? &m_integer : &m_string;
        return *m_scalar;
    }
    void ScalarDone(bool ok) override {
        m_ok = m_ok && ok;
        if (ok) {
            m_out.Scalar(*m_scalar);
        }
    }

    bool Ok() const { return m_ok; }

private:
    struct Container {
        std::string lastKey;
        bool keyed = false;
    };

    bencodejson::StreamWriter& m_out;
    CBencode m_integer;
    CBencode m_string;
    CBencode* m_scalar;
    std::vector<Container> m_open;
    bool m_ok = true;
};

}  // namespace

std::unique_ptr<CBencodeList> ReadReportTree(const std::string& report, std::string& reason) {
    if (report.empty()) {
        reason = "the report is empty";
        return nullptr;
    }
    if (report.size() > kMaxReportBytes) {
        reason = "the report is larger than " + std::to_string(kMaxReportBytes) + " bytes";
        return nullptr;
    }
    // The reader would cut a string at a NUL byte; a client never writes one.
    const void* nul = memchr(report.data(), 0, report.size());
    if (nul != nullptr) {
        reason = "a NUL byte at " +
                 Offset(static_cast<size_t>(static_cast<const char*>(nul) - report.data())) +
                 ", which a client never writes";
        return nullptr;
    }
    if (report[0] != 'l') {
        reason = "the report is not a bencode list (it starts with a byte other than \"l\")";
        return nullptr;
    }
    CBencodeStream stream("", false);
    stream.SetReadLimits(ReportReadLimits());
    if (!stream.Write(report.data(), static_cast<unsigned int>(report.size())) ||
        !stream.Seekg(0, std::ios_base::beg)) {
        reason = "no memory to read the report";
        return nullptr;
    }
    std::unique_ptr<CBencodeList> tree(new CBencodeList(false));
    if (!tree->Internalize(stream)) {
        reason = RefusalReason(stream.Buffer(), report);
        return nullptr;
    }
    const size_t end = stream.Buffer().ReadPosition();
    if (end != report.size()) {
        reason = std::to_string(report.size() - end) + " bytes follow the report's list (from " +
                 Offset(end) + ")";
        return nullptr;
    }
    // What the reader tolerates (a repeated key, keys out of order, "i007e", "3x:abc") reads
    // back differently: a client's report is written back byte for byte.
    CBencodeStream written("", false);
    if (!tree->Externalize(written)) {
        reason = "no memory to read the report";
        return nullptr;
    }
    const size_t size = written.Size();
    const char* data = written.Data();
    if (size != report.size() || memcmp(data, report.data(), size) != 0) {
        size_t at = 0;
        while (at < size && at < report.size() && data[at] == report[at]) {
            ++at;
        }
        reason = "not in the form a client writes: written back, it differs from " + Offset(at) +
                 " on (a repeated key, keys out of order, or a number with a sign or leading "
                 "zeros)";
        return nullptr;
    }
    return tree;
}

bool ReportToJson(const std::string& report, std::string& json, std::string& reason) {
    std::unique_ptr<CBencodeList> tree = ReadReportTree(report, reason);
    if (!tree) {
        return false;
    }
    json = bencodejson::ToJson(*tree);
    return true;
}

bool AppendAcceptedReportJson(const std::string& report, std::string& json) {
    if (report.empty() || report[0] != 'l' || report.size() > kMaxReportBytes ||
        memchr(report.data(), 0, report.size()) != nullptr) {
        return false;
    }
    CBencodeStream stream("", false);
    stream.SetReadLimits(ReportReadLimits());
    if (!stream.Write(report.data(), static_cast<unsigned int>(report.size())) ||
        !stream.Seekg(0, std::ios_base::beg)) {
        return false;
    }
    const size_t before = json.size();
    const bencodejson::Sink sink = [&json](const char* data, size_t size) {
        json.append(data, size);
        return true;
    };
    bencodejson::StreamWriter out(0, sink);
    JsonPrinter printer(out);
    const bool read = ReadBencodeEvents(stream, false, printer) && printer.Ok() &&
                      stream.Buffer().ReadPosition() == report.size();
    out.Finish();
    if (!read) {
        json.resize(before);
        return false;
    }
    json.pop_back();  // the final line break
    return true;
}

}  // namespace collector
