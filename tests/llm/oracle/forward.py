#!/usr/bin/python3
"""Independent NumPy forward pass of a GGUF decoder (llama, qwen2, qwen3, phi3, gemma3) in float64.

Usage: forward.py [--context N] MODEL.gguf OUT.f32 TOKEN [TOKEN ...]
--context is the runtime context (default: the file's); it picks Phi-3's short or long factors.
Writes the logits of every position as little-endian float32, shape [positions, vocabulary].
Reads F32, F16 and BF16 tensors only: it exists to check the engine's arithmetic, not its
decoders.
"""
import struct
import sys

import numpy as np

SCALAR_FORMATS = {0: "<B", 1: "<b", 2: "<H", 3: "<h", 4: "<I", 5: "<i", 6: "<f", 7: "<?",
                  10: "<Q", 11: "<q", 12: "<d"}
STRING, ARRAY = 8, 9


class Reader:
    def __init__(self, data):
        self.data = data
        self.pos = 0

    def take(self, fmt):
        value = struct.unpack_from(fmt, self.data, self.pos)[0]
        self.pos += struct.calcsize(fmt)
        return value

    def string(self):
        length = self.take("<Q")
        text = self.data[self.pos:self.pos + length].decode("utf-8")
        self.pos += length
        return text

    def value(self, kind):
        if kind == STRING:
            return self.string()
        if kind == ARRAY:
            element = self.take("<I")
            return [self.value(element) for _ in range(self.take("<Q"))]
        return self.take(SCALAR_FORMATS[kind])


def read_gguf(path):
    with open(path, "rb") as f:
        data = f.read()
    r = Reader(data)
    if data[:4] != b"GGUF":
        raise SystemExit(f"{path}: not a GGUF file")
    r.pos = 4
    version = r.take("<I")
    if version not in (2, 3):
        raise SystemExit(f"{path}: unsupported GGUF version {version}")
    tensor_count, kv_count = r.take("<Q"), r.take("<Q")
    meta = {}
    for _ in range(kv_count):
        key = r.string()
        meta[key] = r.value(r.take("<I"))
    infos = []
    for _ in range(tensor_count):
        name = r.string()
        dims = [r.take("<Q") for _ in range(r.take("<I"))]
        infos.append((name, dims, r.take("<I"), r.take("<Q")))
    alignment = meta.get("general.alignment", 32)
    start = (r.pos + alignment - 1) // alignment * alignment
    tensors = {}
    for name, dims, kind, offset in infos:
        count = int(np.prod(dims))
        at = start + offset
        if kind == 0:
            values = np.frombuffer(data, "<f4", count, at).astype(np.float64)
        elif kind == 1:
            values = np.frombuffer(data, "<f2", count, at).astype(np.float64)
        elif kind == 30:
            raw = np.frombuffer(data, "<u2", count, at).astype(np.uint32) << 16
            values = raw.view(np.float32).astype(np.float64)
        else:
            raise SystemExit(f"{path}: tensor {name} has type {kind}; the oracle reads F32/F16/BF16 only")
        tensors[name] = values.reshape(list(reversed(dims)))
    return meta, tensors


def rms_norm(x, weight, eps):
    return x / np.sqrt(np.mean(x * x, axis=-1, keepdims=True) + eps) * weight


def rope(x, positions, base, layout, scale, factors, magnitude):
    # x: [tokens, heads, head_dim]; factors divide each pair's frequency (Llama 3.x rope_freqs,
    # Phi-3 rope_factors_*); magnitude scales cos and sin (Phi-3 attn_factor)
    dim = x.shape[-1]
    inv = base ** (-np.arange(0, dim, 2, dtype=np.float64) / dim) / factors
    theta = (positions[:, None] * scale) * inv[None, :]
    cos, sin = magnitude * np.cos(theta)[:, None, :], magnitude * np.sin(theta)[:, None, :]
    out = x.copy()
    if layout == "neox":
        a, b = x[..., :dim // 2], x[..., dim // 2:]
        out[..., :dim // 2] = a * cos - b * sin
        out[..., dim // 2:] = a * sin + b * cos
    else:
        a, b = x[..., 0::2], x[..., 1::2]
        out[..., 0::2] = a * cos - b * sin
        out[..., 1::2] = a * sin + b * cos
    return out


def forward(meta, t, tokens, context=None):
    arch = meta["general.architecture"]
    p = arch + "."
    layers = meta[p + "block_count"]
    heads = meta[p + "attention.head_count"]
    kv_heads = meta.get(p + "attention.head_count_kv", heads)
    hidden = meta[p + "embedding_length"]
    head_dim = meta.get(p + "attention.key_length", hidden // heads)
    eps = meta.get(p + "attention.layer_norm_rms_epsilon", 1e-6)
    base = meta.get(p + "rope.freq_base", 10000.0)
    scale = 1.0
    if meta.get(p + "rope.scaling.type", "none") == "linear":
        scale = 1.0 / meta[p + "rope.scaling.factor"]
    layout = "normal" if arch == "llama" else "neox"
    factors = t.get("rope_freqs.weight", np.ones(head_dim // 2))
    magnitude = meta.get(p + "rope.scaling.attn_factor", 1.0)
    if "rope_factors_short.weight" in t:
        original = meta[p + "rope.scaling.original_context_length"]
        context = context or meta[p + "context_length"]
        factors = t["rope_factors_long.weight" if context > original else "rope_factors_short.weight"]
    n = len(tokens)
    positions = np.arange(n, dtype=np.float64)
    x = t["token_embd.weight"][tokens]
    causal = np.triu(np.full((n, n), -np.inf), 1)
    gemma = arch == "gemma3"
    window, period, base_local = 0, 0, base
    if gemma:
        x = x * np.sqrt(hidden)
        window = meta.get(p + "attention.sliding_window", 0)
        period = meta.get(p + "attention.sliding_window_pattern", 6)
        base_local = meta.get(p + "rope.freq_base_swa", 10000.0)
    distance = positions[:, None] - positions[None, :]
    for i in range(layers):
        b = f"blk.{i}."
        local = window > 0 and (period <= 0 or (i + 1) % period != 0)
        mask = np.where(distance >= window, -np.inf, causal) if local else causal
        layer_base, layer_scale = (base_local, 1.0) if local else (base, scale)
        h = rms_norm(x, t[b + "attn_norm.weight"], eps)
        if b + "attn_qkv.weight" in t:
            qkv = h @ t[b + "attn_qkv.weight"].T
            q, k, v = np.split(qkv, [heads * head_dim, (heads + kv_heads) * head_dim], axis=1)
        else:
            q, k, v = (h @ t[b + f"attn_{m}.weight"].T for m in "qkv")
        if b + "attn_q.bias" in t:
            q, k, v = q + t[b + "attn_q.bias"], k + t[b + "attn_k.bias"], v + t[b + "attn_v.bias"]
        q = q.reshape(n, heads, head_dim)
        k = k.reshape(n, kv_heads, head_dim)
        v = v.reshape(n, kv_heads, head_dim)
        if b + "attn_q_norm.weight" in t:
            q = rms_norm(q, t[b + "attn_q_norm.weight"], eps)
            k = rms_norm(k, t[b + "attn_k_norm.weight"], eps)
        q = rope(q, positions, layer_base, layout, layer_scale, factors, magnitude)
        k = rope(k, positions, layer_base, layout, layer_scale, factors, magnitude)
        group = heads // kv_heads
        out = np.empty((n, heads, head_dim))
        for hd in range(heads):
            scores = q[:, hd] @ k[:, hd // group].T / np.sqrt(head_dim) + mask
            weights = np.exp(scores - scores.max(axis=1, keepdims=True))
            weights /= weights.sum(axis=1, keepdims=True)
            out[:, hd] = weights @ v[:, hd // group]
        attended = out.reshape(n, heads * head_dim) @ t[b + "attn_output.weight"].T
        if gemma:
            attended = rms_norm(attended, t[b + "post_attention_norm.weight"], eps)
        x = x + attended
        h = rms_norm(x, t[b + "ffn_norm.weight"], eps)
        if b + "ffn_gate.weight" in t:
            gate, up = h @ t[b + "ffn_gate.weight"].T, h @ t[b + "ffn_up.weight"].T
        else:
            gate, up = np.split(h @ t[b + "ffn_up.weight"].T, 2, axis=1)
        if gemma:
            active = 0.5 * gate * (1.0 + np.tanh(np.sqrt(2.0 / np.pi) * (gate + 0.044715 * gate ** 3)))
        else:
            active = gate / (1.0 + np.exp(-gate))
        ffn_out = (active * up) @ t[b + "ffn_down.weight"].T
        if gemma:
            ffn_out = rms_norm(ffn_out, t[b + "post_ffw_norm.weight"], eps)
        x = x + ffn_out
    x = rms_norm(x, t["output_norm.weight"], eps)
    output = t.get("output.weight", t["token_embd.weight"])
    return x @ output.T


def main():
    args = sys.argv[1:]
    context = None
    if args[:1] == ["--context"]:
        context, args = int(args[1]), args[2:]
    if len(args) < 3:
        raise SystemExit(__doc__)
    meta, tensors = read_gguf(args[0])
    tokens = [int(token) for token in args[2:]]
    forward(meta, tensors, tokens, context).astype("<f4").tofile(args[1])


if __name__ == "__main__":
    main()
