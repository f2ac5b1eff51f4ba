def where():
    name = __name__
    return name
