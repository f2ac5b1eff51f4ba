// The hash table beside a model of it: buckets as plain lists, in the order in which the table is to keep its
// entries.

#include <deque>
#include <map>

#include "dbgtracerhash.h"
#include "fuzz_input.h"

// ---- Memory that runs out ----

enum tMemory { kEnough, kNoneForEntries, kNoneForBuckets };
static tMemory gMemory;
static constexpr size_t kLargestArray = 1 << 20;  // bytes; failed growths make the next array ever larger

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);

void* __wrap_malloc(size_t size)
{
    return gMemory == kNoneForEntries ? nullptr : __real_malloc(size);
}

void* __wrap_calloc(size_t count, size_t size)
{
    bool fails = gMemory == kNoneForBuckets || count * size > kLargestArray;
    return fails ? nullptr : __real_calloc(count, size);
}
}

namespace {

// ---- The model ----

struct tModelEntry {
    std::string key;
    CUt_HashEntry* entry;
    uintptr_t client_data;
};

class tModel
{
  public:
    explicit tModel(uint32_t key_type) : fKeyType(key_type), fBuckets(4) {}

    tModelEntry* find(const std::string& key)
    {
        for (tModelEntry& each : fBuckets[index_of(key)]) {
            if (each.key == key)
                return &each;
        }
        return nullptr;
    }
    void add(const std::string& key, CUt_HashEntry* entry, tMemory memory)
    {
        fBuckets[index_of(key)].push_front({key, entry, 0});
        fCount++;
        if (fCount < fGrowAt)
            return;
        fReported *= 4;
        uint32_t needed = static_cast<uint32_t>(fBuckets.size()) * 4;
        size_t wanted = fReported < needed ? needed : fReported;
        if (memory != kNoneForBuckets && wanted * sizeof(void*) <= kLargestArray)
            grow();
    }
    void remove(const std::string& key)
    {
        std::deque<tModelEntry>& bucket = fBuckets[index_of(key)];
        for (auto each = bucket.begin();; ++each) {
            FUZZ_CHECK(each != bucket.end());
            if (each->key == key) {
                bucket.erase(each);
                break;
            }
        }
        fCount--;
    }
    // The entries in the order of a walk.
    std::vector<tModelEntry> entries() const
    {
        std::vector<tModelEntry> result;
        for (const std::deque<tModelEntry>& bucket : fBuckets)
            result.insert(result.end(), bucket.begin(), bucket.end());
        return result;
    }
    std::string statistics() const
    {
        std::map<size_t, int> buckets_of_length;
        int longer = 0;
        double average = 0;
        for (const std::deque<tModelEntry>& bucket : fBuckets) {
            double n = static_cast<double>(bucket.size());
            (bucket.size() >= 10 ? longer : buckets_of_length[bucket.size()])++;
            average += n / fCount * (n + 1) / 2;
        }
        std::string text = std::to_string(fCount) + " entries in table, " +
                           std::to_string(static_cast<int>(fReported)) + " buckets\n";
        for (size_t i = 0; i < 10; i++)
            text += "number of buckets with " + std::to_string(i) +
                    " entries: " + std::to_string(buckets_of_length[i]) + "\n";
        text += "number of buckets with 10 or more entries: " + std::to_string(longer) + "\n";
        char number[40];
        snprintf(number, sizeof number, "%.1f", average);
        return text + "average search distance for entry: " + number;
    }
    void check_counters(const CUt_HashTable& table) const
    {
        FUZZ_SAME(fCount, table.numEntries);
        FUZZ_SAME(fReported, table.numBuckets);
        FUZZ_SAME(fGrowAt, table.rebuildSize);
        FUZZ_SAME(fShift, table.downShift);
        FUZZ_SAME(static_cast<int>(fBuckets.size() - 1), table.mask);
        FUZZ_CHECK((table.buckets == table.staticBuckets) == (fBuckets.size() == 4));
    }
    size_t index_of(const std::string& key) const
    {
        if (fKeyType == 0) {
            uint32_t h = 0;
            for (char c : key)
                h = h * 9 + static_cast<uint32_t>(static_cast<signed char>(c));
            return h % fBuckets.size();
        }
        int64_t sum = 0;
        for (char c : key)
            sum += static_cast<signed char>(c);
        // the shift rounds down, also below zero
        __int128 product = static_cast<__int128>(sum) * 1103515245;
        __int128 step = static_cast<__int128>(1) << fShift;
        __int128 quotient = product / step - (product % step < 0 ? 1 : 0);
        __int128 buckets = static_cast<__int128>(fBuckets.size());
        return static_cast<size_t>((quotient % buckets + buckets) % buckets);
    }

  private:
    void grow()
    {
        std::vector<std::deque<tModelEntry>> old(fBuckets.size() * 4);
        old.swap(fBuckets);
        fGrowAt *= 4;
        fShift -= 2;
        for (const std::deque<tModelEntry>& bucket : old) {
            for (const tModelEntry& each : bucket)
                fBuckets[index_of(each.key)].push_front(each);
        }
    }

    uint32_t fKeyType;
    std::vector<std::deque<tModelEntry>> fBuckets;
    uint32_t fCount = 0;
    uint32_t fReported = 4;  // what the table says of its buckets; too many once a growth has failed
    uint32_t fGrowAt = 12;
    int fShift = 28;
};

// ---- The table beside it ----

class tSubject
{
  public:
    explicit tSubject(uint32_t key_type) : fKeyType(key_type), fModel(key_type)
    {
        // what the record held before must not matter
        memset(static_cast<void*>(&fTable), 0xa5, sizeof fTable);
        CU_InitHashTable(&fTable, key_type);
    }

    void find(const std::string& key)
    {
        CUt_HashEntry* entry = fTable.findProc(&fTable, key.c_str());
        tModelEntry* known = fModel.find(key);
        FUZZ_CHECK(entry == (known ? known->entry : nullptr));
        FUZZ_CHECK(!known || reinterpret_cast<uintptr_t>(entry->clientData) == known->client_data);
    }
    void create(const std::string& key, tMemory memory)
    {
        int is_new = 7;
        gMemory = memory;
        CUt_HashEntry* entry = fTable.createProc(&fTable, key.c_str(), &is_new);
        gMemory = kEnough;
        if (tModelEntry* known = fModel.find(key)) {
            FUZZ_SAME(0, is_new);
            FUZZ_CHECK(entry == known->entry);
            return;
        }
        FUZZ_SAME(1, is_new);
        FUZZ_CHECK((entry != nullptr) == (memory != kNoneForEntries));
        if (!entry)
            return;
        FUZZ_CHECK(entry->clientData == nullptr);
        fModel.add(key, entry, memory);
        check_entry(*fModel.find(key));
    }
    void set_client_data(const std::string& key)
    {
        tModelEntry* known = fModel.find(key);
        if (!known || known->client_data)
            return;
        known->entry->clientData = malloc(1);
        known->client_data = reinterpret_cast<uintptr_t>(known->entry->clientData);
    }
    void remove(const std::string& key, bool with_client_data)
    {
        tModelEntry* known = fModel.find(key);
        if (!known)
            return;
        CUt_HashEntry* entry = known->entry;
        if (with_client_data) {
            CU_DeallocHashEntry(entry);
        } else {
            void* client_data = entry->clientData;
            CU_DeleteHashEntry(entry);
            free(client_data);
        }
        fModel.remove(key);
    }
    // Walks all entries in order; DECIDE says of each whether it is deleted on the way.
    template <typename F>
    void walk(F decide)
    {
        CUt_HashSearch search;
        memset(&search, 0xa5, sizeof search);
        CUt_HashEntry* entry = CU_FirstHashEntry(&fTable, &search);
        for (const tModelEntry& each : fModel.entries()) {
            FUZZ_CHECK(entry == each.entry);
            check_entry(each);
            if (decide())
                remove(each.key, true);
            entry = CU_NextHashEntry(&search);
        }
        FUZZ_CHECK(entry == nullptr && search.tablePtr == &fTable);
        // so many growths may have failed that the number has overflowed
        uint32_t in_use = static_cast<uint32_t>(fTable.mask) + 1;
        FUZZ_SAME(fTable.numBuckets < in_use ? in_use : fTable.numBuckets, search.nextIndex);
        FUZZ_CHECK(CU_NextHashEntry(&search) == nullptr);
    }
    void check_statistics()
    {
        char* text = CU_HashStats(&fTable);
        if (fTable.numEntries)
            FUZZ_SAME(fModel.statistics(), std::string(text));
        else
            FUZZ_CHECK(strstr(text, "average search distance for entry: "));
        free(text);
    }
    void check_counters() const { fModel.check_counters(fTable); }
    void end(bool with_client_data)
    {
        std::vector<void*> kept;
        for (const tModelEntry& each : fModel.entries())
            kept.push_back(reinterpret_cast<void*>(each.client_data));
        if (with_client_data) {
            CU_DeallocHashTable(&fTable);
        } else {
            CU_DeleteHashTable(&fTable);
            for (void* each : kept)
                free(each);
        }
        int is_new = 7;
        FUZZ_CHECK(fTable.findProc(&fTable, "0123456789abcdef") == nullptr);
        FUZZ_CHECK(fTable.createProc(&fTable, "0123456789abcdef", &is_new) == nullptr);
    }

  private:
    void check_entry(const tModelEntry& each) const
    {
        FUZZ_CHECK(each.entry->tablePtr == &fTable);
        FUZZ_CHECK(each.entry->bucketPtr == &fTable.buckets[fModel.index_of(each.key)]);
        const char* key = reinterpret_cast<const char*>(each.entry) + offsetof(CUt_HashEntry, key);
        FUZZ_CHECK(memcmp(key, each.key.c_str(), fKeyType ? fKeyType : each.key.size() + 1) == 0);
    }

    uint32_t fKeyType;
    CUt_HashTable fTable;
    tModel fModel;
};

// A key of the table's kind: any bytes, or one of a family of which many exist.
std::string read_key(tInput* input, uint32_t key_type)
{
    if (input->flag()) {
        std::string key = "key " + std::to_string(input->byte());
        if (key_type)
            key.resize(key_type, '.');
        return key;
    }
    return key_type ? input->bytes(key_type) : input->c_text(40);
}

// Many keys with one decision, so that short inputs make large tables.
void create_many(tSubject* subject, tInput* input, uint32_t key_type)
{
    uint32_t first = input->byte() * 64u;
    tMemory memory = input->below(4) == 1 ? kNoneForBuckets : kEnough;
    for (uint32_t i = first; i < first + 64; i++) {
        std::string key = "many " + std::to_string(i);
        if (key_type) {
            key.resize(key_type, '\x81');
            memcpy(&key[0], &i, key_type < sizeof i ? key_type : sizeof i);
        }
        subject->create(key, memory);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    tInput input(data, size);
    uint32_t key_type = input.flag() ? 0 : 1 + input.below(20);
    tSubject subject(key_type);
    while (!input.is_empty()) {
        switch (input.below(8)) {
            case 0:
                subject.find(read_key(&input, key_type));
                break;
            case 1:
            case 2:
                subject.create(read_key(&input, key_type), kEnough);
                break;
            case 3:
                subject.set_client_data(read_key(&input, key_type));
                break;
            case 4:
                subject.remove(read_key(&input, key_type), input.flag());
                break;
            case 5:
                subject.create(read_key(&input, key_type), static_cast<tMemory>(input.below(3)));
                break;
            case 6:
                create_many(&subject, &input, key_type);
                break;
            default:
                subject.walk([&input] { return input.below(4) == 1; });
                subject.check_statistics();
        }
        subject.check_counters();
    }
    subject.walk([] { return false; });
    subject.end(size & 1);
    return 0;
}
