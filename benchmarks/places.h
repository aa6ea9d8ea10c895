// Where the benchmarks find what they measure and keep what they make.
#pragma once

#include <string>

/// The loader as built by a preset: "product", "product-i586", or "bench", the one on glibc.
std::string loader_of(const std::string &preset);

/// A program from subjects/, built as the product is.
std::string subject(const std::string &name);

/// A file of this folder.
std::string source(const std::string &name);

/// Makes the scratch space: a tmpfs in a mount namespace of this process's own, gone with it.
void make_scratch();

/// A path in it.
std::string scratch(const std::string &name);
