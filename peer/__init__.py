# SPDX-License-Identifier: LGPL-2.1-or-later
"""A second implementation of the wire formats, written from docs/ alone."""
