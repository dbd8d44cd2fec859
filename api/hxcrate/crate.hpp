// The item store for C++ programs: one include. Start at Session::open.
#pragma once

#include "hxcrate/blob.hpp"
#include "hxcrate/error.hpp"
#include "hxcrate/item.hpp"
#include "hxcrate/listing.hpp"
#include "hxcrate/remote.hpp"
#include "hxcrate/rewrite.hpp"
#include "hxcrate/session.hpp"
#include "hxcrate/store.hpp"
#include "hxcrate/stream.hpp"
#include "hxcrate/view.hpp"
