// The modem's QMI data service: units of phantom and statistics data to
// hand out, and the files that saves leave under the simulator directory.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

struct LinkAnswer;

// A link connection's unfinished QMI save.
struct LinkConnState {
    bool saving = false;
    uint32_t expected = 0;
    std::string kind;
    std::string number;
    std::vector<uint8_t> data;
};

class QmiService {
public:
    explicit QmiService(std::string sim_dir);
    // A QMI library call; false when code is not one of them.
    bool op(uint32_t code, const uint8_t* args, size_t len, LinkConnState& conn, LinkAnswer* out);
    // Units of a kind (0 phantom, 1 statistics) by size; "" or why not.
    std::string set_units(int kind, const std::vector<size_t>& sizes);
    nlohmann::json status() const;

private:
    bool save(const LinkConnState& conn);

    struct Save {
        std::string file; // relative to the simulator directory
        std::string kind;
        std::string number;
        size_t size;
    };
    std::string sim_dir_;
    std::vector<std::vector<uint8_t>> units_[2]; // by kind: phantom, statistics
    std::vector<Save> saves_;
    unsigned seq_ = 0;
};

#define QMI_MAX_UNIT 60000
#define QMI_MAX_UNITS 64
