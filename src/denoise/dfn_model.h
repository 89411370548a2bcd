// The DFN network with its layer objects, its scratch and its two
// signal-processing states: one hop of 480 windowed samples in, 480 samples
// out for the wrapper's overlap-add. The exact data
// flow is docs/dfn.md section 3; the output rebuilds the frame four hops
// back (section 4). process_block runs a block's two hops together so that
// the grouped linear layers and the GRUs' input products read their weights
// once per block. Everything is allocated at construction; process_hop and
// process_block never allocate, lock or fail. Used by one thread at a time.
#pragma once

#include "denoise/dfn_analysis.h"
#include "denoise/dfn_synthesis.h"
#include "denoise/layers.h"

#include <memory>
#include <span>
#include <vector>

namespace quelora::denoise {

// What one hop asks of the processor, counted from the layers' shapes. The
// convolutions are compute bound (their weights are small and reused over
// every bin); the GRUs and grouped linear layers are matrix-vector products,
// bound by reading their weights: a block's two hops share one pass over all
// of them except the GRUs' recurrent weights, which each hop reads again
// (the second pass finds them in L2).
struct dfn_work {
    uint64_t convolution_multiply_adds = 0;   // per hop
    uint64_t matrix_vector_multiply_adds = 0; // per hop
    uint64_t streamed_weight_bytes = 0;       // every matrix-vector weight once
    uint64_t recurrent_weight_bytes = 0;      // the GRUs' hidden-side weights
};

class dfn_model {
public:
    // table: 1 517 904 floats in the row order of dfn_weight_layout.h,
    // read-only and outliving the model; the layers point into it.
    // kernels: the vector kernels every layer uses (matvec_kernels.h).
    explicit dfn_model(const float* table,
                       const matvec_kernels& kernels = selected_matvec_kernels());
    ~dfn_model();
    dfn_model(const dfn_model&) = delete;
    dfn_model& operator=(const dfn_model&) = delete;

    // One hop: window (480 samples) -> output (480 samples).
    void process_hop(const float* window, float* output);

    // process_hop(window_a, output_a) then process_hop(window_b, output_b),
    // up to the float summation order of the shared products. The outputs
    // must not alias the windows.
    void process_block(const float* window_a, const float* window_b, float* output_a,
                       float* output_b);

    // Back to the state at construction (GRU states, normalisation means,
    // feature, spectrum and DF-path histories; gains() and coefficients()
    // read zero again). Never allocates.
    void reset();

    // The last hop's 32 band gains and 960 deep-filter coefficients
    // ([bin 96][tap 5][re, im]), for tests.
    const float* gains() const { return hops_[last_].gains.data(); }
    const float* coefficients() const { return hops_[last_].coefficients.data(); }
    const dfn_analysis& analysis() const { return analysis_; }

    dfn_work work() const;

private:
    struct layers;
    // What one hop keeps between its encoders and its synthesis while the
    // other hop of the block runs through the same layers.
    struct hop_buffers {
        hop_buffers();
        std::vector<float> e0, e1, e2, e3;          // 64x32, 64x16, 64x8, 64x8
        std::vector<float> flat, joined;            // 3072 (transposed c1), 1024
        std::vector<float> h1, x, y, emb, gru3_out; // 256 each
        std::vector<float> decoded;                 // 512
        std::vector<float> gains;                   // 32
        std::vector<float> p;                       // 96x10 bin-major
        std::vector<float> coefficients;            // 960
    };

    static std::unique_ptr<layers> build_layers(const float* table, const matvec_kernels& kernels);
    void encode(hop_buffers& hop);
    // One hop (process_hop) or a block's two (process_block).
    void embed(std::span<hop_buffers> hops);
    void decode_erb(hop_buffers& hop);
    void decode_df(std::span<hop_buffers> hops);
    void rotate_df_path();

    dfn_analysis analysis_;
    std::unique_ptr<layers> layers_;
    dfn_synthesis synthesis_;

    hop_buffers hops_[2];                  // process_hop uses the first; process_block both
    int last_ = 0;                         // the hop gains() and coefficients() report
    std::vector<float> c0_, c1_;           // 64x96, 64x48
    std::vector<float> df_path_history_;   // ring of c0: [64][5 slots][96]
    std::vector<float> df_path_rotations_; // [newest slot 5][10][32 x 5 slots]
    uint32_t newest_slot_ = 4;             // the slot of the latest hop's c0
    std::vector<float> wide_;              // scratch up to 64x96
    std::vector<float> skip_, up_;         // 64x32 each
    std::vector<float> df_path_;           // 10x96 channel-major
    const matvec_kernels* kernels_;
};

} // namespace quelora::denoise
