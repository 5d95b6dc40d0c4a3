// The XML document model in one include: node handles, parsing, rendering, error texts.
#pragma once

#include "support/xml/xml_errors.hpp"
#include "support/xml/xml_node.hpp"
#include "support/xml/xml_parser.hpp"
#include "support/xml/xml_render.hpp"
