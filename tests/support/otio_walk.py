"""What the corpus scripts share about OpenTimelineIO documents, read with
Python's standard library alone: an object's schema, and the timelines of a
document."""


def schema(obj):
    """The schema's name without its version: "Clip" of "Clip.2"."""
    return obj.get("OTIO_SCHEMA", "").split(".")[0] if isinstance(obj, dict) else ""


def timelines(obj):
    """Every timeline of a document, in document order, through collections
    held in collections."""
    if schema(obj) == "Timeline":
        yield obj
    elif schema(obj) == "SerializableCollection":
        for child in obj.get("children") or []:
            yield from timelines(child)
