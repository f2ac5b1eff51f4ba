def where(text):
    name = __name__ + text
    return name
