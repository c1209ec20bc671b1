"""What the bodies of the thermometers say: a number and a temperature, as text."""


def decode(type, body):
    if type != "Reading":
        return None
    number, celsius = body.split()
    return {"number": int(number), "celsius": float(celsius)}
