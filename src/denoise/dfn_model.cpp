#include "denoise/dfn_model.h"

#include "denoise/dfn_constants.h"
#include "denoise/dfn_weight_layout.h"
#include "dsp/vector_ops.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <span>

namespace quelora::denoise {

namespace {

constexpr uint32_t ch = 64;                            // channels of every encoder/decoder map
constexpr uint32_t erb = dfn_erb_bands;                // 32
constexpr uint32_t df = dfn_df_bins;                   // 96
constexpr uint32_t df_path_frames = 5;                 // the DF path convolution's time kernel
constexpr uint32_t df_out_channels = 2 * dfn_df_order; // 10: tap x (re, im)
constexpr uint32_t hidden = 256;

// The constructors below take their tensors one statement at a time: the
// reader hands them out in table order, and function arguments have no
// evaluation order.
// The reader also carries the kernels every layer is built with.
struct layer_source {
    dfn_weight_reader& r;
    const matvec_kernels& kernels;
    const float* take(tensor_kind kind, uint32_t count) { return r.take(kind, count); }
};

conv2d_layer conv(layer_source& r, uint32_t time, uint32_t freq, uint32_t in, uint32_t kernel_time,
                  uint32_t kernel_freq, int32_t stride, uint32_t out, uint32_t groups) {
    const float* w = r.take(tensor_kind::weight, out * (in / groups) * kernel_time * kernel_freq);
    return conv2d_layer(time, freq, in, w, kernel_time, kernel_freq, stride, out, 0, 0, groups,
                        r.kernels);
}

// A 1x1 convolution with groups 1 (the pointwise half of a separable one).
conv2d_layer pointwise(layer_source& r, uint32_t freq, uint32_t in, uint32_t out) {
    return conv(r, 1, freq, in, 1, 1, 1, out, 1);
}

// Rows 31 and 36: depthwise 1x3, padding (0, 1), output padding (0, 1), stride (1, 2).
conv_transpose2d_layer upsample(layer_source& r, uint32_t freq) {
    const float* w = r.take(tensor_kind::weight, ch * 3);
    return conv_transpose2d_layer(1, freq, ch, w, 1, 3, 0, 1, 0, 1, 1, 2, ch, ch);
}

batch_norm_layer norm(layer_source& r, uint32_t channels, uint32_t freq) {
    const float* scale = r.take(tensor_kind::bn_scale, channels);
    const float* shift = r.take(tensor_kind::bn_shift, channels);
    const float* mean = r.take(tensor_kind::bn_mean, channels);
    const float* variance = r.take(tensor_kind::bn_variance, channels);
    return batch_norm_layer(scale, shift, mean, variance, channels, 1, freq);
}

grouped_linear_layer linear(layer_source& r, uint32_t in, uint32_t out) {
    constexpr uint32_t groups = 8;
    const float* w = r.take(tensor_kind::weight, in * out / groups);
    return grouped_linear_layer(w, in, out, groups, r.kernels);
}

gru_layer gru(layer_source& r) {
    std::array<const float*, 12> t{};
    for (int i = 0; i < 6; ++i) t[i] = r.take(tensor_kind::weight, hidden * hidden);
    for (int i = 6; i < 12; ++i) t[i] = r.take(tensor_kind::gru_bias, hidden);
    return gru_layer(hidden, hidden, t[0], t[1], t[2], t[3], t[4], t[5], t[6], t[7], t[8], t[9],
                     t[10], t[11], r.kernels);
}

// One layer over the hops of a call: forward for a single hop, forward_pair
// (one pass over the weights) for a block's two. input and output pick a
// hop's buffers.
template <typename Layer, typename Hops, typename Input, typename Output>
void forward_hops(Layer& layer, Hops hops, Input input, Output output) {
    if (hops.size() == 2)
        layer.forward_pair(input(hops[0]), input(hops[1]), output(hops[0]), output(hops[1]));
    else
        layer.forward(input(hops[0]), output(hops[0]));
}

// The "conv + BN + ReLU" of every stage, the norm and the ReLU folded into
// the convolution's product.
void conv_norm_relu(conv2d_layer& conv, const batch_norm_layer& bn, const float* input,
                    float* output) {
    const row_epilogue after = bn.epilogue(true);
    conv.forward(input, output, &after);
}

} // namespace

// Members in the order of the weight table's rows (dfn_weight_layout.h):
// their initialisers take the tensors in that order.
struct dfn_model::layers {
    explicit layers(layer_source& r)
        : erb_conv0(conv(r, 3, erb, 1, 3, 3, 1, ch, 1)), erb_bn0(norm(r, ch, erb)),
          erb_dw1(conv(r, 1, erb, ch, 1, 3, 2, ch, ch)), erb_pw1(pointwise(r, 16, ch, ch)),
          erb_bn1(norm(r, ch, 16)), erb_dw2(conv(r, 1, 16, ch, 1, 3, 2, ch, ch)),
          erb_pw2(pointwise(r, 8, ch, ch)), erb_bn2(norm(r, ch, 8)),
          erb_dw3(conv(r, 1, 8, ch, 1, 3, 1, ch, ch)), erb_pw3(pointwise(r, 8, ch, ch)),
          erb_bn3(norm(r, ch, 8)), df_conv0(conv(r, 3, df, 2, 3, 3, 1, ch, 2)),
          df_pw0(pointwise(r, df, ch, ch)), df_bn0(norm(r, ch, df)),
          df_dw1(conv(r, 1, df, ch, 1, 3, 2, ch, ch)), df_pw1(pointwise(r, 48, ch, ch)),
          df_bn1(norm(r, ch, 48)), df_embedding(linear(r, 3072, 512)),
          embedding_in(linear(r, 1024, hidden)), gru1(gru(r)),
          embedding_middle(linear(r, hidden, hidden)), gru2(gru(r)),
          embedding_out(linear(r, hidden, 512)), path3(conv(r, 1, 8, ch, 1, 1, 1, ch, ch)),
          path3_bn(norm(r, ch, 8)), dec_dw3(conv(r, 1, 8, ch, 1, 3, 1, ch, ch)),
          dec_pw3(pointwise(r, 8, ch, ch)), dec_bn3(norm(r, ch, 8)),
          path2(conv(r, 1, 8, ch, 1, 1, 1, ch, ch)), path2_bn(norm(r, ch, 8)),
          up2_dw(upsample(r, 8)), up2_pw(pointwise(r, 16, ch, ch)), up2_bn(norm(r, ch, 16)),
          path1(conv(r, 1, 16, ch, 1, 1, 1, ch, ch)), path1_bn(norm(r, ch, 16)),
          up1_dw(upsample(r, 16)), up1_pw(pointwise(r, erb, ch, ch)), up1_bn(norm(r, ch, erb)),
          path0(conv(r, 1, erb, ch, 1, 1, 1, ch, ch)), path0_bn(norm(r, ch, erb)),
          erb_out(conv(r, 1, erb, ch, 1, 3, 1, 1, 1)), erb_out_bn(norm(r, 1, erb)),
          df_path(r.take(tensor_kind::weight, df_out_channels * (ch / 2) * df_path_frames)),
          df_path_pw(pointwise(r, df, df_out_channels, df_out_channels)),
          df_path_bn(norm(r, df_out_channels, df)), df_in(linear(r, hidden, hidden)), gru3(gru(r)),
          df_out(linear(r, hidden, df * df_out_channels)) {}

    conv2d_layer erb_conv0;
    batch_norm_layer erb_bn0;
    conv2d_layer erb_dw1, erb_pw1;
    batch_norm_layer erb_bn1;
    conv2d_layer erb_dw2, erb_pw2;
    batch_norm_layer erb_bn2;
    conv2d_layer erb_dw3, erb_pw3;
    batch_norm_layer erb_bn3;
    conv2d_layer df_conv0, df_pw0;
    batch_norm_layer df_bn0;
    conv2d_layer df_dw1, df_pw1;
    batch_norm_layer df_bn1;
    grouped_linear_layer df_embedding, embedding_in;
    gru_layer gru1;
    grouped_linear_layer embedding_middle;
    gru_layer gru2;
    grouped_linear_layer embedding_out;
    conv2d_layer path3;
    batch_norm_layer path3_bn;
    conv2d_layer dec_dw3, dec_pw3;
    batch_norm_layer dec_bn3;
    conv2d_layer path2;
    batch_norm_layer path2_bn;
    conv_transpose2d_layer up2_dw;
    conv2d_layer up2_pw;
    batch_norm_layer up2_bn;
    conv2d_layer path1;
    batch_norm_layer path1_bn;
    conv_transpose2d_layer up1_dw;
    conv2d_layer up1_pw;
    batch_norm_layer up1_bn;
    conv2d_layer path0;
    batch_norm_layer path0_bn;
    conv2d_layer erb_out;
    batch_norm_layer erb_out_bn;
    const float* df_path; // [10][32][5 hops], oldest hop first; see rotate_df_path
    conv2d_layer df_path_pw;
    batch_norm_layer df_path_bn;
    grouped_linear_layer df_in;
    gru_layer gru3;
    grouped_linear_layer df_out;
};

std::unique_ptr<dfn_model::layers> dfn_model::build_layers(const float* table,
                                                           const matvec_kernels& kernels) {
    dfn_weight_reader reader(table);
    layer_source source{reader, kernels};
    auto built = std::make_unique<layers>(source);
    reader.finish();
    return built;
}

dfn_model::hop_buffers::hop_buffers()
    : e0(ch * erb), e1(ch * 16), e2(ch * 8), e3(ch * 8), flat(3072), joined(1024), h1(hidden),
      x(hidden), y(hidden), emb(hidden), gru3_out(hidden), decoded(512), gains(erb),
      p(df * df_out_channels), coefficients(df * df_out_channels) {}

dfn_model::dfn_model(const float* table, const matvec_kernels& kernels)
    : layers_(build_layers(table, kernels)), synthesis_(analysis_.band_widths()), c0_(ch * df),
      c1_(ch * 48), df_path_history_(ch * df_path_frames * df),
      df_path_rotations_(df_path_frames * df_out_channels * (ch / 2) * df_path_frames),
      wide_(ch * df), skip_(ch * erb), up_(ch * erb), df_path_(df_out_channels * df),
      kernels_(&kernels) {
    rotate_df_path();
}

// The DF path convolution reads the last five hops of c0 from a ring,
// [channel][slot][bin], instead of shifting every channel's history by a hop
// each time. For each slot the newest hop may occupy, the weights are kept
// with their hop axis turned to the ring's slot order: rotation n holds, at
// slot (n + 1 + k) mod 5, the tap for the hop k places back from the oldest.
// Each output then sums the same terms in slot order rather than hop order.
void dfn_model::rotate_df_path() {
    constexpr uint32_t rows = df_out_channels * (ch / 2);
    for (uint32_t newest = 0; newest < df_path_frames; ++newest) {
        float* rotation = df_path_rotations_.data() + newest * rows * df_path_frames;
        for (uint32_t row = 0; row < rows; ++row)
            for (uint32_t k = 0; k < df_path_frames; ++k)
                rotation[row * df_path_frames + (newest + 1 + k) % df_path_frames] =
                    layers_->df_path[row * df_path_frames + k];
    }
}

dfn_model::~dfn_model() = default;

dfn_work dfn_model::work() const {
    const layers& l = *layers_;
    dfn_work w;
    for (const conv2d_layer* c :
         {&l.erb_conv0, &l.erb_dw1, &l.erb_pw1, &l.erb_dw2, &l.erb_pw2, &l.erb_dw3, &l.erb_pw3,
          &l.df_conv0,  &l.df_pw0,  &l.df_dw1,  &l.df_pw1,  &l.path3,   &l.dec_dw3, &l.dec_pw3,
          &l.path2,     &l.up2_pw,  &l.path1,   &l.up1_pw,  &l.path0,   &l.erb_out, &l.df_path_pw})
        w.convolution_multiply_adds += c->multiply_adds();
    w.convolution_multiply_adds += l.up2_dw.multiply_adds() + l.up1_dw.multiply_adds() +
                                   uint64_t{df_out_channels} * (ch / 2) * df_path_frames * df;
    for (const grouped_linear_layer* g : {&l.df_embedding, &l.embedding_in, &l.embedding_middle,
                                          &l.embedding_out, &l.df_in, &l.df_out}) {
        const uint64_t weights = g->weight_count();
        w.matrix_vector_multiply_adds += weights;
        w.streamed_weight_bytes += weights * sizeof(float);
    }
    for (const gru_layer* g : {&l.gru1, &l.gru2, &l.gru3}) {
        const uint64_t input = 3ull * g->hidden_size() * g->input_size();
        const uint64_t recurrent = 3ull * g->hidden_size() * g->hidden_size();
        w.matrix_vector_multiply_adds += input + recurrent;
        w.streamed_weight_bytes += (input + recurrent) * sizeof(float);
        w.recurrent_weight_bytes += recurrent * sizeof(float);
    }
    return w;
}

// The rest is scratch that every hop writes whole before reading it: the hop
// buffers' other vectors, c0_, c1_, wide_, skip_, up_, df_path_, and the
// layers' padding, patch and gate buffers (the padding's borders are zero from
// construction and never written). The synthesis keeps nothing between hops.
void dfn_model::reset() {
    analysis_.reset();
    layers_->gru1.reset();
    layers_->gru2.reset();
    layers_->gru3.reset();
    std::fill(df_path_history_.begin(), df_path_history_.end(), 0.0f);
    newest_slot_ = df_path_frames - 1;
    for (hop_buffers& hop : hops_) {
        std::fill(hop.gains.begin(), hop.gains.end(), 0.0f);
        std::fill(hop.coefficients.begin(), hop.coefficients.end(), 0.0f);
    }
    last_ = 0;
}

// The encoders of one hop (docs/dfn.md section 3), and what of the embedding
// and the DF decoder depends on this hop's encoders alone: the flattened maps
// the embedding reads and the DF path output p, which must be taken before the
// next hop pushes its c0 into the DF-path history.
void dfn_model::encode(hop_buffers& hop) {
    layers& l = *layers_;
    conv_norm_relu(l.erb_conv0, l.erb_bn0, analysis_.erb_features(), hop.e0.data());
    l.erb_dw1.forward(hop.e0.data(), wide_.data());
    conv_norm_relu(l.erb_pw1, l.erb_bn1, wide_.data(), hop.e1.data());
    l.erb_dw2.forward(hop.e1.data(), wide_.data());
    conv_norm_relu(l.erb_pw2, l.erb_bn2, wide_.data(), hop.e2.data());
    l.erb_dw3.forward(hop.e2.data(), wide_.data());
    conv_norm_relu(l.erb_pw3, l.erb_bn3, wide_.data(), hop.e3.data());

    l.df_conv0.forward(analysis_.complex_features(), wide_.data());
    conv_norm_relu(l.df_pw0, l.df_bn0, wide_.data(), c0_.data());
    // c0 replaces the oldest hop in the DF path's ring.
    newest_slot_ = (newest_slot_ + 1) % df_path_frames;
    for (uint32_t c = 0; c < ch; ++c)
        std::memcpy(df_path_history_.data() + (c * df_path_frames + newest_slot_) * df,
                    c0_.data() + c * df, df * sizeof(float));
    l.df_dw1.forward(c0_.data(), wide_.data());
    conv_norm_relu(l.df_pw1, l.df_bn1, wide_.data(), c1_.data());

    // The DF decoder's path over the five hops ending at this one.
    // Per group of 32 channels: 5 outputs x (32 channels x 5 slots) times the
    // ring's (32 x 5) x 96 rows, which already are the patch matrix.
    constexpr uint32_t group_out = df_out_channels / 2, patch_rows = (ch / 2) * df_path_frames;
    const float* rotation = df_path_rotations_.data() + newest_slot_ * df_out_channels * patch_rows;
    for (uint32_t g = 0; g < 2; ++g)
        kernels_->matrix_matrix(rotation + g * group_out * patch_rows,
                                df_path_history_.data() + g * patch_rows * df, group_out,
                                patch_rows, df, wide_.data() + g * group_out * df, nullptr);
    conv_norm_relu(l.df_path_pw, l.df_path_bn, wide_.data(), df_path_.data());
    kernels_->transpose(df_path_.data(), hop.p.data(), df_out_channels, df);

    // The embedding's inputs: c1 as [bin][channel], e3 as [band][channel].
    kernels_->transpose(c1_.data(), hop.flat.data(), ch, 48);
    kernels_->transpose(hop.e3.data(), hop.joined.data(), ch, 8);
}

// The embedding; h1 keeps GRU 1's output for the DF decoder. With a
// block's two hops every weight is read once for both (the GRUs' recurrent
// products excepted: the second hop's step needs the first's state).
void dfn_model::embed(std::span<hop_buffers> hops) {
    layers& l = *layers_;
    const auto flat = [](hop_buffers& h) { return h.flat.data(); };
    const auto joined = [](hop_buffers& h) { return h.joined.data(); };
    const auto df_emb = [](hop_buffers& h) { return h.joined.data() + 512; };
    const auto x = [](hop_buffers& h) { return h.x.data(); };
    const auto h1 = [](hop_buffers& h) { return h.h1.data(); };
    const auto emb = [](hop_buffers& h) { return h.emb.data(); };
    const auto decoded = [](hop_buffers& h) { return h.decoded.data(); };
    forward_hops(l.df_embedding, hops, flat, df_emb);
    for (hop_buffers& h : hops) relu(df_emb(h), df_emb(h), 512);
    forward_hops(l.embedding_in, hops, joined, x);
    for (hop_buffers& h : hops) relu(x(h), x(h), hidden);
    forward_hops(l.gru1, hops, x, h1);
    forward_hops(l.embedding_middle, hops, h1, x);
    for (hop_buffers& h : hops) relu(x(h), x(h), hidden);
    forward_hops(l.gru2, hops, x, emb);
    for (hop_buffers& h : hops) dsp::add(x(h), emb(h), static_cast<int32_t>(hidden));
    forward_hops(l.embedding_out, hops, emb, decoded);
    for (hop_buffers& h : hops) relu(decoded(h), decoded(h), 512);
}

// The ERB decoder, deepest stage first, ending in 32 gains.
void dfn_model::decode_erb(hop_buffers& hop) {
    layers& l = *layers_;
    kernels_->transpose(hop.decoded.data(), up_.data(), 8,
                        ch); // [band][channel] -> [channel][band]

    const auto skip_add = [&](conv2d_layer& path, batch_norm_layer& bn, const float* encoder,
                              std::size_t count) {
        conv_norm_relu(path, bn, encoder, skip_.data());
        dsp::add(up_.data(), skip_.data(), static_cast<int32_t>(count));
    };
    skip_add(l.path3, l.path3_bn, hop.e3.data(), ch * 8);
    l.dec_dw3.forward(skip_.data(), wide_.data());
    conv_norm_relu(l.dec_pw3, l.dec_bn3, wide_.data(), up_.data());

    skip_add(l.path2, l.path2_bn, hop.e2.data(), ch * 8);
    l.up2_dw.forward(skip_.data(), wide_.data());
    conv_norm_relu(l.up2_pw, l.up2_bn, wide_.data(), up_.data());

    skip_add(l.path1, l.path1_bn, hop.e1.data(), ch * 16);
    l.up1_dw.forward(skip_.data(), wide_.data());
    conv_norm_relu(l.up1_pw, l.up1_bn, wide_.data(), up_.data());

    skip_add(l.path0, l.path0_bn, hop.e0.data(), ch * erb);
    const row_epilogue norm_only = l.erb_out_bn.epilogue(false);
    l.erb_out.forward(skip_.data(), hop.gains.data(), &norm_only);
    kernels_->sigmoid(hop.gains.data(), hop.gains.data(), erb);
}

// The DF decoder: deep-filter coefficients from h1 plus the DF path output p,
// with the weight passes shared as in embed.
void dfn_model::decode_df(std::span<hop_buffers> hops) {
    layers& l = *layers_;
    const auto h1 = [](hop_buffers& h) { return h.h1.data(); };
    const auto y = [](hop_buffers& h) { return h.y.data(); };
    const auto gru3_out = [](hop_buffers& h) { return h.gru3_out.data(); };
    const auto coefficients = [](hop_buffers& h) { return h.coefficients.data(); };
    forward_hops(l.df_in, hops, h1, y);
    for (hop_buffers& h : hops) relu(y(h), y(h), hidden);
    forward_hops(l.gru3, hops, y, gru3_out);
    for (hop_buffers& h : hops) dsp::add(y(h), gru3_out(h), static_cast<int32_t>(hidden));
    forward_hops(l.df_out, hops, gru3_out, coefficients);
    for (hop_buffers& h : hops) {
        kernels_->tanh(h.coefficients.data(), h.coefficients.data(), h.coefficients.size());
        dsp::add(h.p.data(), h.coefficients.data(), static_cast<int32_t>(h.coefficients.size()));
    }
}

void dfn_model::process_hop(const float* window, float* output) {
    hop_buffers& hop = hops_[0];
    const std::span<hop_buffers> one(hops_, 1);
    analysis_.process(window);
    encode(hop);
    embed(one);
    decode_erb(hop);
    decode_df(one);
    synthesis_.process(analysis_, hop.gains.data(), hop.coefficients.data(), output);
    last_ = 0;
}

void dfn_model::process_block(const float* window_a, const float* window_b, float* output_a,
                              float* output_b) {
    hop_buffers& a = hops_[0];
    hop_buffers& b = hops_[1];
    analysis_.process(window_a);
    encode(a);
    analysis_.process(window_b);
    encode(b);
    embed(hops_);
    decode_erb(a);
    decode_erb(b);
    decode_df(hops_);
    // Hop a's spectra now lie one hop further back than process_hop sees them.
    synthesis_.process(analysis_, a.gains.data(), a.coefficients.data(), output_a, 1);
    synthesis_.process(analysis_, b.gains.data(), b.coefficients.data(), output_b, 0);
    last_ = 1;
}

} // namespace quelora::denoise
