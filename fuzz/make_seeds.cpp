// Writes the seed inputs of the connection fuzz target into a directory:
// request streams of every command on every kind of area, built with the
// client library's encoders. Seeds are made once and kept in the repository;
// run this only to make them afresh:
//   build-fuzz/bin/make_seeds fuzz/corpus/connection
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "comclient.h"

using namespace comclient;
using Bytes = std::vector<uint8_t>;

namespace {

// Ports as the fuzz target configures them: 0 plain, 1 Modbus, 2 Siemens, 3 driver 38.
RegAddr rec(uint8_t port, uint8_t type, uint8_t kind, int32_t start, int16_t count, uint8_t unit = 0)
{
    RegAddr r;
    r.port = port;
    r.station = 1;
    r.type = type;
    r.kind = kind;
    r.start = start;
    r.count = count;
    r.addr_unit = unit;
    return r;
}

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes with_sum(Bytes p)
{
    p.back() = check_sum(std::span(p).subspan(kHeaderSize, p.size() - kHeaderSize - 1));
    return p;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_seeds DIR\n");
        return 2;
    }
    const RegAddr words = rec(0, 2, 3, 10, 4), bits = rec(0, 0, 3, 5, 20), dwords = rec(0, 4, 1, 0, 2);
    const RegAddr modbus_bits = rec(1, 0, 5, 3, 24), siemens = rec(2, 4, 1, 13, 2, 1), fam38 = rec(3, 4, 1, 6, 1, 1);
    const RegAddr local_w = rec(0, 2, 255, 100, 3), local_b = rec(0, 0, 254, 40, 12), local_wb = rec(0, 0, 249, 7, 9);
    const RegAddr sram_base = rec(0, 2, 255, 9000, 2), sram_w = rec(0, 2, 251, 4, 2), sram_b = rec(0, 0, 252, 30, 5);
    const RegAddr no_area = rec(0, 2, 243, 0, 1);
    RwOper add{2, 3, 100, 0, 1, 0}, toggle{1, 0, 0, 0, 0, 0}, ping{4, 1, 5, 0, 1, 1};
    const RegAddr plc_all[] = {words, bits, dwords, modbus_bits, siemens, fam38};
    const RegAddr local_all[] = {local_w, local_b, local_wb, sram_w, sram_b, no_area};

    Bytes bad_sum = encode_record(Command::com_read, words);
    bad_sum.back() ^= 0x5a;
    Bytes huge_len = encode_record(Command::com_read, words);
    huge_len[8] = huge_len[9] = 0xff;
    Bytes too_short = make_packet(3, Bytes{1, 2, 3});
    Bytes unknown = make_packet(11, Bytes{});
    Bytes zero_cmd = encode_record(Command::com_read, words);
    zero_cmd[10] = 0;
    zero_cmd = with_sum(zero_cmd);
    Bytes count_past{3}; // claims three records, carries one
    const auto one = words.encode();
    count_past.insert(count_past.end(), one.begin(), one.end());

    const std::vector<std::pair<std::string, Bytes>> seeds = {
        {"register-read-unregister", cat({encode_areas(Command::register_areas, plc_all),
                                          encode_record(Command::com_read, words),
                                          encode_areas(Command::sub_read, plc_all),
                                          encode_areas(Command::unregister_areas, plc_all)})},
        {"reads-of-every-plc-kind", cat({encode_record(Command::com_read, bits), encode_record(Command::com_read, dwords),
                                         encode_record(Command::com_read, modbus_bits),
                                         encode_record(Command::com_read, siemens), encode_record(Command::com_read, fam38),
                                         encode_record(Command::com_realtime_read, words)})},
        {"realtime-read-and-check", cat({encode_record(Command::realtime_read, words),
                                         encode_record(Command::realtime_readcheck, words),
                                         encode_record(Command::com_realtime_read, siemens),
                                         encode_record(Command::realtime_readcheck, siemens)})},
        {"write-and-check", cat({encode_write(words, Bytes{1, 2, 3, 4, 5, 6, 7, 8}), encode_record(Command::writecheck, words),
                                 encode_write(bits, Bytes{0xff, 0x0f}), encode_record(Command::writecheck, bits)})},
        {"rw-and-check", cat({encode_rw(Command::realtime_rw, words, add), encode_rw(Command::realtime_rw_check, words, add),
                              encode_rw(Command::realtime_rw, dwords, ping, RwForm::short_form),
                              encode_rw(Command::realtime_rw_check, dwords, ping, RwForm::short_form)})},
        {"local-write-read", cat({encode_write(local_w, Bytes{1, 2, 3, 4, 5, 6}), encode_record(Command::com_read, local_w),
                                  encode_write(local_b, Bytes{0xa5, 0x0f}), encode_record(Command::realtime_read, local_b),
                                  encode_write(local_wb, Bytes{0x33, 0x01}), encode_record(Command::com_realtime_read, local_wb)})},
        {"local-rw", cat({encode_rw(Command::realtime_rw, local_w, add), encode_rw(Command::realtime_rw, local_b, toggle),
                          encode_rw(Command::realtime_rw, sram_w, ping)})},
        {"sram-base-write-read", cat({encode_write(sram_base, Bytes{0x10, 0, 0, 0}), encode_write(sram_w, Bytes{9, 8, 7, 6}),
                                      encode_record(Command::com_read, sram_w), encode_write(sram_b, Bytes{0x1f}),
                                      encode_record(Command::com_read, rec(0, 0, 250, 3, 40))})},
        {"sub-read-local-sram-none", encode_areas(Command::sub_read, local_all)},
        {"no-area-and-unknown", cat({encode_record(Command::com_read, no_area), unknown, zero_cmd, too_short,
                                     encode_record(Command::com_read, local_w)})},
        {"bad-checksum", cat({encode_record(Command::com_read, local_w), bad_sum, encode_record(Command::com_read, local_w)})},
        {"huge-package-len", huge_len},
        {"split-packet-tail", Bytes(bad_sum.begin(), bad_sum.begin() + 15)},
        {"empty-counts", cat({encode_areas(Command::register_areas, {}), encode_areas(Command::sub_read, {})})},
        {"count-past-packet", make_packet(19, count_past)},
    };
    for (const auto& [name, bytes] : seeds)
        std::ofstream(std::string(argv[1]) + "/" + name, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return 0;
}
